#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/base/Assert.h"
#include "memory/cache/SizeClass.h"

namespace Vantel::Memory {

/// The link of a free object: its first word.
inline void*& nextObject(void* object) {
    return *static_cast<void**>(object);
}

/// A run of pages. The page cache's lock guards the record while the pages are free, and always
/// `inUse`; the lock of its class guards the objects. What is left (`pageId`, `pageCount`,
/// `objSize`) does not change while one of its objects is out.
struct Span {
    uint64_t pageId = 0;
    uint64_t pageCount = 0;
    Span* next = nullptr;
    Span* prev = nullptr;
    void* freeList = nullptr;  // objects that came back
    uint64_t useCount = 0;     // objects out
    uint64_t objCount = 0;
    bool inUse = false;
    uint8_t entryTag = 0;  // which all page map entries of the span carry
    uint64_t objSize = 0;
    uint64_t regionId = 0;  // first page of the mapping that the pages came from
    uint64_t uncut = 0;     // objects at the span's start that were not handed out yet

    char* start() const { return reinterpret_cast<char*>(pageId << kPageShift); }
    uint64_t bytes() const { return pageCount << kPageShift; }
    bool contains(const void* object) const {
        return reinterpret_cast<uintptr_t>(object) - (pageId << kPageShift) < bytes();
    }
    bool exhausted() const { return freeList == nullptr && uncut == 0; }

    /// Makes the span one of objects of `size` bytes, none of them out.
    void cut(uint64_t size) {
        objSize = size;
        objCount = bytes() / size;
        recut();
    }
    /// All objects are back: forgets their links, so that they are made anew in address order.
    void recut() {
        freeList = nullptr;
        useCount = 0;
        uncut = objCount;
    }
};

/// A doubly linked ring of spans behind a sentinel. Whoever owns the list guards it.
class SpanList {
public:
    SpanList() { mHead.next = mHead.prev = &mHead; }
    SpanList(const SpanList&) = delete;
    SpanList& operator=(const SpanList&) = delete;

    bool empty() const { return mHead.next == &mHead; }
    uint64_t size() const { return mSize; }
    Span* front() const { return mHead.next; }
    /// Where a walk from front() by `next` ends.
    const Span* end() const { return &mHead; }

    void pushFront(Span* span) {
        span->prev = &mHead;
        span->next = mHead.next;
        mHead.next->prev = span;
        mHead.next = span;
        ++mSize;
    }

    void erase(Span* cur) {
        ORBEL_ASSERT(cur != &mHead);
        cur->prev->next = cur->next;
        cur->next->prev = cur->prev;
        cur->next = cur->prev = nullptr;
        --mSize;
    }

private:
    Span mHead;
    uint64_t mSize = 0;
};

}  // namespace Vantel::Memory
