#include "memory/cache/ThreadCache.h"

#include <algorithm>
#include <cstdlib>

#include "frame/base/Log.h"

namespace Vantel::Memory {

ThreadCache::ThreadCache() {
    for (size_t i = 0; i < SizeClass::kThreadLists; ++i) {
        const uint64_t perPage = kPageSize / SizeClass::size(i);
        mLists[i].maxLength = i < 16 ? std::max<uint64_t>(128, perPage) : perPage;
    }
}

void* ThreadCache::fetchFromCentralCache(size_t index, size_t size) {
    if (index >= SizeClass::kFreeLists) {
        ORBEL_LOG_FATAL("index should smaller than %d\n", static_cast<int>(SizeClass::kFreeLists));
        std::abort();
    }
    void* first = nullptr;
    if (index >= SizeClass::kThreadLists) {
        CentralCache::instance().fetch(index, 1, first);
        return first;
    }
    FreeList& list = mLists[index];
    const uint64_t batch = SizeClass::numMoveSize(size);
    const size_t got =
        CentralCache::instance().fetch(index, std::min(list.maxLength, batch), first);
    if (got > 1) {
        list.head = nextObject(first);  // the list is empty, or nobody would fetch
        list.count += got - 1;
    }
    slowStart(list, index, batch);
    return first;
}

void ThreadCache::slowStart(FreeList& list, size_t index, uint64_t batch) {
    if (list.maxLength < batch) {
        const uint64_t grown = index < 16 ? list.maxLength * 2 : list.maxLength * 3 / 2;
        list.maxLength = std::min(grown, batch);
    }
}

void ThreadCache::releaseHalf(size_t index) {
    FreeList& list = mLists[index];
    const uint64_t half = list.count >> 1;
    list.head = CentralCache::instance().release(index, list.head, half);
    list.count -= half;
}

void ThreadCache::releaseAll() {
    for (size_t i = 0; i < SizeClass::kThreadLists; ++i) {
        FreeList& list = mLists[i];
        if (list.count > 0) {
            list.head = CentralCache::instance().release(i, list.head, list.count);
            list.count = 0;
        }
    }
}

}  // namespace Vantel::Memory
