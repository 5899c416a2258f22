#include "memory/cache/ThreadCache.h"

#include <algorithm>
#include <cstdlib>

#include "frame/base/Log.h"

namespace Vantel::Memory {

ThreadCache::ThreadCache(void** room) {
    for (size_t i = 0; i < SizeClass::kThreadLists; ++i) {
        mLists[i + 1] = {room, room + ThreadListLengths::first(i), room};
        room += ThreadListLengths::room(i);
    }
}

void* ThreadCache::fetchFromCentralCache(size_t index, size_t size) {
    if (index >= SizeClass::kFreeLists) {
        ORBEL_LOG_FATAL("index should smaller than %d", static_cast<int>(SizeClass::kFreeLists));
        std::abort();
    }
    if (index >= SizeClass::kThreadLists) {
        void* object = nullptr;
        CentralCache::instance().fetch(index, 1, &object);
        return object;
    }
    FreeList& list = mLists[index + 1];
    const size_t batch = SizeClass::numMoveSize(size);
    // The list is empty, or nobody would fetch.
    list.top += CentralCache::instance().fetch(index, std::min(list.maxLength(), batch), list.top);
    slowStart(list, index, batch);
    void* object = nullptr;
    tryPop(index + 1, object);
    return object;
}

void ThreadCache::slowStart(FreeList& list, size_t index, size_t batch) {
    const size_t length = list.maxLength();
    if (length < batch) {
        list.limit = list.bottom + std::min(index < 16 ? length * 2 : length * 3 / 2, batch);
    }
}

void ThreadCache::push(size_t index, void* object) {
    FreeList& list = mLists[index + 1];
    *list.top++ = object;
    if (list.top > list.limit) {
        const size_t half = list.count() / 2;
        list.top -= half;
        CentralCache::instance().release(index, list.top, half);
    }
}

void ThreadCache::releaseAll() {
    for (size_t i = 0; i < SizeClass::kThreadLists; ++i) {
        FreeList& list = mLists[i + 1];
        if (list.count() > 0) {
            CentralCache::instance().releaseToSpans(i, list.bottom, list.count());
            list.top = list.bottom;
        }
    }
    CentralCache::instance().emptyStocks();
}

}  // namespace Vantel::Memory
