#include "memory/cache/CacheSingletons.h"

#include <new>

#include "memory/cache/CentralCache.h"
#include "memory/cache/PageCache.h"
#include "memory/cache/SystemMemoryAccounting.h"
#include "memory/cache/ThreadCacheManager.h"

namespace Vantel::Memory {

namespace {

/// Room for an object that is never destroyed: a thread that still runs while the process exits
/// may hold its locks.
template <class T>
class Room {
public:
    template <class... Args>
    void make(Args&&... args) {
        new (mBytes) T(std::forward<Args>(args)...);
    }
    T& get() { return *std::launder(reinterpret_cast<T*>(mBytes)); }

private:
    alignas(T) char mBytes[sizeof(T)];
};

constinit Room<SystemMemoryAccounting> accounting{};
constinit Room<PageCache> pageCache{};
constinit Room<CentralCache> centralCache{};
constinit Room<ThreadCacheManager> threadCacheManager{};

struct Lifetime {
    Lifetime() {
        accounting.make();
        pageCache.make();
        centralCache.make(pageCache.get());
        threadCacheManager.make();
    }
    Lifetime(const Lifetime&) = delete;
    Lifetime& operator=(const Lifetime&) = delete;
    ~Lifetime() {
        if (threadCacheManager.get().shutDown()) {
            pageCache.get().unmapRecords();
        }
    }
};

// For programs that link the allocator without the library's list of what is made at load time.
struct MadeAtLoad {
    MadeAtLoad() { makeCacheSingletons(); }
};
[[gnu::init_priority(102), maybe_unused]] const MadeAtLoad madeAtLoad;

}  // namespace

void makeCacheSingletons() {
    static const Lifetime lifetime;
}

SystemMemoryAccounting& SystemMemoryAccounting::instance() {
    return accounting.get();
}
PageCache& PageCache::instance() {
    return pageCache.get();
}
CentralCache& CentralCache::instance() {
    return centralCache.get();
}
ThreadCacheManager& ThreadCacheManager::instance() {
    return threadCacheManager.get();
}

}  // namespace Vantel::Memory
