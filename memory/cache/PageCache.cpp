#include "memory/cache/PageCache.h"

#include <bit>
#include <cstdio>
#include <limits>
#include <new>

#include "frame/base/Guard.h"
#include "memory/cache/SystemMemoryAccounting.h"

namespace Vantel::Memory {

using Orbel::CMutex;
using Orbel::Guard;

PageCache::PageCache() : mFreeThreshold(pagesFromEnvironment("MEMORY_PAGE_FREE_THRESHOLD", 256)) {}

Span* PageCache::allocate(uint64_t pages, uint8_t tag, bool mayMap) {
    Guard<CMutex> guard(mMutex);
    return allocateLocked(pages, tag, mayMap);
}

Span* PageCache::allocateLocked(uint64_t pages, uint8_t tag, bool mayMap) {
    if (pages > kMaxPages) {
        Span* span = mayMap ? newRegion(pages, tag) : nullptr;
        if (span != nullptr) {
            subFree(pages);
            span->inUse = true;
        }
        return span;
    }
    SpanList* list = firstListFrom(pages);
    if (list == &mLists[pages]) {
        Span* span = list->front();
        takeOffList(span);
        span->inUse = true;
        subFree(pages);
        if (span->entryTag != tag) {
            setEntries(span, tag);
        }
        return span;
    }
    if (list != nullptr) {
        Span* span = list->front();
        takeOffList(span);
        return split(span, pages, tag);
    }
    Span* region = mayMap ? newRegion(kMaxPages, tag) : nullptr;
    return region == nullptr ? nullptr : split(region, pages, tag);
}

/// `span` is on no list; what is left of it goes on one.
Span* PageCache::split(Span* span, uint64_t pages, uint8_t tag) {
    if (span->pageCount == pages) {
        // A whole fresh region is not taken off the count of free pages, on purpose: that stays
        // too high until the region is unmapped.
        span->inUse = true;
        span->overcounted = true;
        return span;
    }
    Span* tail = newRecord(span->pageId + span->pageCount - pages, pages, span->regionId);
    if (tail != nullptr) {
        setEntries(tail, tag);
        tail->inUse = true;
        span->pageCount -= pages;
        subFree(pages);
    }
    putOnList(span);
    return tail;
}

Span* PageCache::newRecord(uint64_t pageId, uint64_t pageCount, uint64_t regionId) {
    void* memory = mSpans.take();
    if (memory == nullptr) {
        return nullptr;
    }
    Span* span = new (memory) Span;
    span->pageId = pageId;
    span->pageCount = pageCount;
    span->regionId = regionId;
    return span;
}

Span* PageCache::newRegion(uint64_t pages, uint8_t tag) {
    if (pages > std::numeric_limits<uint32_t>::max()) {
        return nullptr;  // more than the counters hold, and than any machine has
    }
    SystemMemoryAccounting& system = SystemMemoryAccounting::instance();
    void* memory = system.allocPages(pages);
    if (memory == nullptr) {
        return nullptr;
    }
    const uint64_t pageId = reinterpret_cast<uintptr_t>(memory) >> kPageShift;
    Span* span = mMap.ensure(pageId, pages) ? newRecord(pageId, pages, pageId) : nullptr;
    if (span == nullptr) {
        system.freePages(memory, pages);
        return nullptr;
    }
    setEntries(span, tag);
    addFree(pages);
    return span;
}

void PageCache::release(Span* span) {
    Guard<CMutex> guard(mMutex);
    if (span->pageCount > kMaxPages) {
        unmap(span);
        return;
    }
    const int edges = merge(span);
    span->inUse = false;
    if (aboveThreshold() && (edges == 2 || span->pageCount == kMaxPages)) {
        unmap(span);
    } else {
        putOnList(span);
    }
}

bool PageCache::reserveIdle(uint64_t pages) {
    uint64_t now = freeAndIdle();
    do {
        if (static_cast<uint32_t>(now) + pages > mFreeThreshold) {
            return false;
        }
    } while (!mFree.compare_exchange_weak(now, now + bothCounts(pages), std::memory_order_relaxed));
    return true;
}

void PageCache::releaseIdle(Span* span) {
    Guard<CMutex> guard(mMutex);
    addFree(span->pageCount);
    merge(span);
    span->inUse = false;
    putOnList(span);
}

/// Joins `span`, which is on no list, with the free spans of its region on both sides. The number
/// of sides on which the region's edge was reached.
int PageCache::merge(Span* span) {
    int edges = 0;
    while (Span* left = freeNeighbour(span->pageId - 1, span, edges)) {
        span->pageId = left->pageId;
        absorb(span, left);
    }
    while (Span* right = freeNeighbour(span->pageId + span->pageCount, span, edges)) {
        absorb(span, right);
    }
    return edges;
}

/// The span of page `pageId`, beside `span`, if it can be absorbed; an edge is counted.
Span* PageCache::freeNeighbour(uint64_t pageId, const Span* span, int& edges) {
    Span* neighbour = mMap.get(pageId).span();
    if (neighbour == nullptr || neighbour->regionId != span->regionId) {
        ++edges;
        return nullptr;
    }
    return neighbour->inUse ? nullptr : neighbour;
}

void PageCache::absorb(Span* span, Span* neighbour) {
    takeOffList(neighbour);
    span->pageCount += neighbour->pageCount;
    span->overcounted |= neighbour->overcounted;
    for (uint64_t i = 0; i < neighbour->pageCount; ++i) {
        mMap.set(neighbour->pageId + i, PageEntry(span, span->entryTag));
    }
    mSpans.give(neighbour);
}

void PageCache::unmap(Span* span) {
    for (uint64_t i = 0; i < span->pageCount; ++i) {
        mMap.set(span->pageId + i, PageEntry());
    }
    subFree(span->pageCount + (span->overcounted ? kMaxPages : 0));
    SystemMemoryAccounting::instance().freePages(span->start(), span->pageCount);
    mSpans.give(span);
}

void PageCache::setEntries(Span* span, uint8_t tag) {
    span->entryTag = tag;
    for (uint64_t i = 0; i < span->pageCount; ++i) {
        mMap.set(span->pageId + i, PageEntry(span, tag));
    }
}

void PageCache::putOnList(Span* span) {
    mLists[span->pageCount].pushFront(span);
    mNonEmpty[span->pageCount / 64] |= uint64_t{1} << span->pageCount % 64;
}

void PageCache::takeOffList(Span* span) {
    SpanList& list = mLists[span->pageCount];
    list.erase(span);
    if (list.empty()) {
        mNonEmpty[span->pageCount / 64] &= ~(uint64_t{1} << span->pageCount % 64);
    }
}

/// The first list from `pages` on that has a span, null if none has.
SpanList* PageCache::firstListFrom(uint64_t pages) {
    uint64_t mask = ~uint64_t{0} << pages % 64;
    for (uint64_t word = pages / 64; word < std::size(mNonEmpty); ++word) {
        const uint64_t found = mNonEmpty[word] & mask;
        if (found != 0) {
            return &mLists[word * 64 + static_cast<uint64_t>(std::countr_zero(found))];
        }
        mask = ~uint64_t{0};
    }
    return nullptr;
}

void PageCache::dump() {
    Guard<CMutex> guard(mMutex);
    std::printf("\nstart dump page cache span\n");
    for (uint64_t pages = 1; pages <= kMaxPages; ++pages) {
        if (!mLists[pages].empty()) {
            std::printf("  page span list %lu, size = %lu\n", pages, mLists[pages].size());
        }
    }
    std::printf("page cache span free %u, total %u\n\n", freePages(),
                SystemMemoryAccounting::instance().pagesInUse());
}

void PageCache::releaseFree() {
    Guard<CMutex> guard(mMutex);
    // Free neighbours are merged, so that a free region is one span.
    while (!mLists[kMaxPages].empty()) {
        Span* span = mLists[kMaxPages].front();
        takeOffList(span);
        unmap(span);
    }
}

void PageCache::unmapRecords() {
    mMap.clear();
    mSpans.unmapAll();
}

}  // namespace Vantel::Memory
