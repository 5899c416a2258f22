#pragma once

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "memory/cache/CentralCache.h"
#include "memory/cache/PageMap.h"
#include "memory/cache/SizeClass.h"

namespace Vantel::Memory {

/// The lengths of the lists of a thread.
struct ThreadListLengths {
    /// How long a list may be at first.
    static constexpr size_t first(size_t index) {
        const size_t perPage = kPageSize / SizeClass::size(index);
        return index < 16 ? std::max<size_t>(128, perPage) : perPage;
    }
    /// Room that a list may come to need: its limit grows to the batch of its smallest size, and
    /// one object more comes in before half of them go.
    static constexpr size_t room(size_t index) {
        return std::max(first(index), SizeClass::numMoveSize(SizeClass::smallest(index))) + 1;
    }
    static constexpr size_t wholeRoom() {
        size_t whole = 0;
        for (size_t i = 0; i < SizeClass::kThreadLists; ++i) {
            whole += room(i);
        }
        return whole;
    }
};

/// The free objects of one thread, a list for each class up to 1024 bytes. Only its thread touches
/// it: no locks.
class ThreadCache {
public:
    ThreadCache();
    ThreadCache(const ThreadCache&) = delete;
    ThreadCache& operator=(const ThreadCache&) = delete;

    bool empty(size_t index) const { return mLists[index].top == mLists[index].bottom; }

    /// The last object that came in; the list of the class must not be empty.
    void* pop(size_t index) { return *--mLists[index].top; }

    void push(size_t index, void* object) {
        FreeList& list = mLists[index];
        void** top = list.top;  // once: the store below could change it, for all that is known
        *top++ = object;
        list.top = top;
        if (top > list.limit) [[unlikely]] {
            releaseHalf(list, index);
        }
    }

    /// An object of `size` bytes from the central cache, more for the list with it; null if there
    /// is no memory. `size` as requested: the batch is computed from it.
    void* fetchFromCentralCache(size_t index, size_t size);

    /// Gives all objects back.
    void releaseAll();

    size_t count(size_t index) const { return mLists[index].count(); }
    size_t maxLength(size_t index) const { return mLists[index].maxLength(); }

private:
    /// A stack of objects. By pointers and not by numbers: a push is two stores and a compare.
    struct FreeList {
        void** top;
        void** bottom;
        void** limit;  // bottom + the present limit of its length

        size_t count() const { return static_cast<size_t>(top - bottom); }
        size_t maxLength() const { return static_cast<size_t>(limit - bottom); }
    };

    static void releaseHalf(FreeList& list, size_t index);
    static void slowStart(FreeList& list, size_t index, size_t batch);

    FreeList mLists[SizeClass::kThreadLists];
    void* mObjects[ThreadListLengths::wholeRoom()];  // left as it comes: pages of unused classes
                                                     // stay untouched
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
