#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "memory/cache/CentralCache.h"
#include "memory/cache/PageMap.h"
#include "memory/cache/SizeClass.h"

namespace Vantel::Memory {

/// The free objects of one thread, a list for each class up to 1024 bytes. Only its thread touches
/// it: no locks.
class ThreadCache {
public:
    ThreadCache();

    /// The last object that came in, null if the list of the class is empty.
    void* pop(size_t index) {
        FreeList& list = mLists[index];
        void* object = list.head;
        if (object != nullptr) {
            list.head = nextObject(object);
            --list.count;
        }
        return object;
    }

    void push(size_t index, void* object) {
        FreeList& list = mLists[index];
        nextObject(object) = list.head;
        list.head = object;
        if (++list.count > list.maxLength) [[unlikely]] {
            releaseHalf(index);
        }
    }

    /// An object of `size` bytes from the central cache, more for the list with it; null if there
    /// is no memory. `size` as requested: the batch is computed from it.
    void* fetchFromCentralCache(size_t index, size_t size);

    /// Gives all objects back.
    void releaseAll();

    uint64_t maxLength(size_t index) const { return mLists[index].maxLength; }

private:
    struct FreeList {
        void* head = nullptr;
        uint64_t count = 0;
        uint64_t maxLength = 2;
    };

    void releaseHalf(size_t index);
    static void slowStart(FreeList& list, size_t index, uint64_t batch);

    FreeList mLists[SizeClass::kThreadLists];
};

/// A thread's cache in the manager's list.
struct alignas(64) ThreadCacheNode {
    pthread_t threadId = {};
    ThreadCacheNode* next = nullptr;
    ThreadCacheNode* prev = nullptr;
    // The part of the page map that this thread met last: nearly always the same, and then a free
    // needs one load from the map instead of three in a row. Leaves are never freed.
    uintptr_t leafIndex = ~uintptr_t{0};
    const PageMap::Leaf* leaf = nullptr;
    ThreadCache cache;
};

}  // namespace Vantel::Memory
