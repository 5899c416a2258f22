#include "Vantel/Orbel/SharedMemDomain.h"

#include "ipc/DomainRegistry.h"
#include "ipc/SharedDomainImpl.h"

namespace Vantel::Orbel {

DomainRegistry& DomainRegistry::instance() {
    static DomainRegistry registry;
    return registry;
}

DomainRegistry::~DomainRegistry() {
    for (const auto& [name, domain] : mDomains) {
        // When a callback of the domain called exit(), its threads cannot wait for themselves.
        if (!domain->isOwnThread()) {
            domain->deInit();
        }
    }
}

std::shared_ptr<SharedMemDomain> DomainRegistry::get(const std::string& name) {
    std::lock_guard<std::mutex> guard(mMutex);
    std::shared_ptr<SharedDomainImpl>& domain = mDomains[name];
    if (domain == nullptr) {
        domain = std::make_shared<SharedDomainImpl>(name);
    }
    return domain;
}

SharedMemDomain::~SharedMemDomain() = default;

std::shared_ptr<SharedMemDomain> SharedMemDomain::instance(const std::string& name) {
    return DomainRegistry::instance().get(name);
}

}  // namespace Vantel::Orbel
