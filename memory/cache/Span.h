#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "frame/base/Assert.h"
#include "memory/cache/SizeClass.h"

namespace Vantel::Memory {

/// A run of pages. The page cache's lock guards the record while the pages are free, and always
/// `inUse`; the lock of its class guards the objects. What is left (`pageId`, `pageCount`,
/// `objSize`) does not change while one of its objects is out.
///
/// Free objects are bits here and not links through themselves: the lists then never touch the
/// memory that they hand out, which another processor may have written last.
struct Span {
    static constexpr size_t kMaxObjects = 512;

    uint64_t pageId = 0;
    uint64_t pageCount = 0;
    Span* next = nullptr;
    Span* prev = nullptr;
    uint64_t useCount = 0;  // objects out
    uint64_t objCount = 0;
    uint64_t objSize = 0;
    uint64_t regionId = 0;    // first page of the mapping that the pages came from
    uint32_t reciprocal = 0;  // 2^32 / objSize, rounded up
    uint8_t entryTag = 0;     // which all page map entries of the span carry
    bool inUse = false;
    bool overcounted = false;  // its region counts once too often as free, see PageCache::split()
    uint64_t freeObjects[kMaxObjects / 64] = {};

    char* start() const { return reinterpret_cast<char*>(pageId << kPageShift); }
    uint64_t bytes() const { return pageCount << kPageShift; }
    bool contains(const void* object) const { return offsetOf(object) < bytes(); }
    bool exhausted() const { return useCount == objCount; }

    /// Makes the span one of objects of a class's `size`, none of them out.
    void cut(uint64_t size) {
        objSize = size;
        objCount = bytes() / size;
        reciprocal = static_cast<uint32_t>(((uint64_t{1} << 32) + size - 1) / size);
        useCount = 0;
        for (uint64_t i = 0; i < kMaxObjects / 64; ++i) {
            const uint64_t left = objCount - std::min(objCount, i * 64);
            freeObjects[i] = left >= 64 ? ~uint64_t{0} : (uint64_t{1} << left) - 1;
        }
    }

    /// Makes the span a single object.
    void useWhole() {
        objSize = bytes();
        objCount = useCount = 1;
    }

    /// Takes up to `count` objects, the lowest ones in ascending order; returns how many.
    size_t take(size_t count, void** objects) {
        size_t taken = 0;
        for (uint64_t word = 0; taken < count && word * 64 < objCount; ++word) {
            uint64_t bits = freeObjects[word];
            for (; taken < count && bits != 0; bits &= bits - 1) {
                const uint64_t i = word * 64 + static_cast<uint64_t>(std::countr_zero(bits));
                objects[taken++] = start() + i * objSize;
            }
            freeObjects[word] = bits;
        }
        useCount += taken;
        return taken;
    }

    /// Puts those of `count` objects back that come first and are of this span; returns how many,
    /// at least one.
    size_t put(void* const* objects, size_t count) {
        size_t done = 0;
        uint64_t word = indexOf(objects[0]) / 64;
        uint64_t bits = freeObjects[word];  // kept at hand as long as objects share the word
        do {
            const uint64_t i = indexOf(objects[done]);
            if (i / 64 != word) {
                freeObjects[word] = bits;
                word = i / 64;
                bits = freeObjects[word];
            }
            bits |= uint64_t{1} << i % 64;
            ++done;
        } while (done < count && contains(objects[done]));
        freeObjects[word] = bits;
        useCount -= done;
        return done;
    }

private:
    /// Exact: the rounding adds less than 512 * 65536 / 2^32 to a quotient.
    uint64_t indexOf(const void* object) const { return offsetOf(object) * reciprocal >> 32; }

    uintptr_t offsetOf(const void* object) const {
        return reinterpret_cast<uintptr_t>(object) - (pageId << kPageShift);
    }
};

static_assert([] {
    for (size_t i = 0; i < SizeClass::kFreeLists; ++i) {
        const size_t size = SizeClass::size(i);
        if ((SizeClass::spanPages(size) << kPageShift) / size > Span::kMaxObjects) {
            return false;
        }
    }
    return true;
}());

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
