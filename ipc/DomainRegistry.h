#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Vantel::Orbel {

class SharedDomainImpl;
class SharedMemDomain;

/// The domains of the process. Its destructor, at exit, leaves them in good order, so that their
/// nodes are free at once and not only when another process finds this one dead.
class DomainRegistry {
public:
    static DomainRegistry& instance();
    DomainRegistry(const DomainRegistry&) = delete;
    DomainRegistry& operator=(const DomainRegistry&) = delete;
    ~DomainRegistry();

    /// Threads: any.
    std::shared_ptr<SharedMemDomain> get(const std::string& name);

private:
    using Map = std::map<std::string, std::shared_ptr<SharedDomainImpl>>;

    DomainRegistry() = default;

    std::mutex mMutex;
    Map& mDomains = *new Map;  // never destroyed: threads of a domain may be running still
};

}  // namespace Vantel::Orbel
