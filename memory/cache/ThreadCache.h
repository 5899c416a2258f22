#pragma once

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>

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
///
/// A list is named by its tag, class + 1. List 0 stands for everything that threads do not cache:
/// it is always empty and always full. So are all lists of a cache without room for objects, which
/// is what a thread has before its first allocation: the fast paths ask nothing else.
class ThreadCache {
public:
    static constexpr size_t kRoom = ThreadListLengths::wholeRoom();

    constexpr ThreadCache() = default;
    /// With room for kRoom objects, uninitialised; of the caller, who keeps it.
    explicit ThreadCache(void** room);
    ThreadCache(const ThreadCache&) = delete;
    ThreadCache& operator=(const ThreadCache&) = delete;

    /// Takes the last object that came in; false if there is none.
    bool tryPop(size_t tag, void*& object) {
        FreeList& list = mLists[tag];
        void** top = list.top;
        if (top == list.bottom) [[unlikely]] {
            return false;
        }
        list.top = --top;
        object = *top;
        return true;
    }

    /// False, with nothing done, if the list is at its limit.
    bool tryPush(size_t tag, void* object) {
        FreeList& list = mLists[tag];
        void** top = list.top;  // once: the store below could change it, for all that is known
        if (top >= list.limit) [[unlikely]] {
            return false;
        }
        *top = object;
        list.top = top + 1;
        return true;
    }

    /// Also beyond the limit, by one: then half of the list goes to the central cache. The cache
    /// must have room.
    void push(size_t index, void* object);

    /// An object of `size` bytes from the central cache, more for the list with it; null if there
    /// is no memory. `size` as requested: the batch is computed from it.
    void* fetchFromCentralCache(size_t index, size_t size);

    /// Gives all objects back.
    void releaseAll();

    size_t count(size_t index) const { return mLists[index + 1].count(); }
    size_t maxLength(size_t index) const { return mLists[index + 1].maxLength(); }

private:
    /// A stack of objects. By pointers and not by numbers: a push is two stores and a compare.
    struct alignas(32) FreeList {
        void** top;
        void** limit;  // bottom + the present limit of its length
        void** bottom;

        size_t count() const { return static_cast<size_t>(top - bottom); }
        size_t maxLength() const { return static_cast<size_t>(limit - bottom); }
    };

    static void slowStart(FreeList& list, size_t index, size_t batch);

    FreeList mLists[SizeClass::kThreadLists + 1] = {};
};

/// A thread's cache in the manager's list.
struct alignas(64) ThreadCacheNode {
    constexpr ThreadCacheNode() = default;
    explicit ThreadCacheNode(void** room) : cache(room) {}

    pthread_t threadId = {};
    ThreadCacheNode* next = nullptr;
    ThreadCacheNode* prev = nullptr;
    // The part of the page map that this thread met last: nearly always the same, and then a free
    // needs one load from the map instead of three in a row. Leaves are never freed.
    uint64_t leafPage = 0;   // its first page
    uint64_t leafPages = 0;  // how many; 0: none yet
    const PageMap::Leaf* leaf = nullptr;
    ThreadCache cache;
};

/// Memory for a node and, behind it, for the room of its cache, which is left as it comes: pages of
/// unused classes stay untouched.
struct alignas(ThreadCacheNode) ThreadCacheRecord {
    static ThreadCacheNode* construct(void* memory) {
        auto* room = static_cast<char*>(memory) + offsetof(ThreadCacheRecord, room);
        return new (memory) ThreadCacheNode(reinterpret_cast<void**>(room));
    }

    char node[sizeof(ThreadCacheNode)];
    void* room[ThreadCache::kRoom];
};

}  // namespace Vantel::Memory
