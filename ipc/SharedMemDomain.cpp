#include "Vantel/Orbel/SharedMemDomain.h"

#include <map>
#include <mutex>

#include "ipc/SharedDomainImpl.h"

namespace Vantel::Orbel {

namespace {

/// The domains of the process. Its destructor, at exit, leaves them in good order, so that their
/// nodes are free at once and not only when another process finds this one dead.
class DomainRegistry {
public:
    std::shared_ptr<SharedMemDomain> get(const std::string& name) {
        std::lock_guard<std::mutex> guard(mMutex);
        std::shared_ptr<SharedDomainImpl>& domain = mDomains[name];
        if (domain == nullptr) {
            domain = std::make_shared<SharedDomainImpl>(name);
        }
        return domain;
    }

    ~DomainRegistry() {
        for (const auto& [name, domain] : mDomains) {
            // When a callback of the domain called exit(), its threads cannot wait for themselves.
            if (!domain->isOwnThread()) {
                domain->deInit();
            }
        }
    }

private:
    using Map = std::map<std::string, std::shared_ptr<SharedDomainImpl>>;

    std::mutex mMutex;
    Map& mDomains = *new Map;  // never destroyed: threads of a domain may be running still
};

}  // namespace

SharedMemDomain::~SharedMemDomain() = default;

std::shared_ptr<SharedMemDomain> SharedMemDomain::instance(const std::string& name) {
    static DomainRegistry registry;
    return registry.get(name);
}

}  // namespace Vantel::Orbel
