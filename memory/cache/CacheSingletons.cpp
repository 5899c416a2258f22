// The allocator's objects of the process, in the order in which they need each other.

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

struct LoadTime {
    LoadTime() {
        accounting.make();
        pageCache.make();
        centralCache.make(pageCache.get());
        threadCacheManager.make();
    }
    LoadTime(const LoadTime&) = delete;
    LoadTime& operator=(const LoadTime&) = delete;
    ~LoadTime() {
        if (threadCacheManager.get().shutDown()) {
            pageCache.get().unmapRecords();
        }
    }
};

// Before all other static objects of the library, and so destroyed behind them: their destructors
// may still give memory back.
__attribute__((init_priority(101))) const LoadTime loadTime;

}  // namespace

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
