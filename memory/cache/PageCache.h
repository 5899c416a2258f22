#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Vantel/Orbel/CMutex.h"
#include "memory/cache/PageMap.h"
#include "memory/cache/RecordArena.h"
#include "memory/cache/Span.h"

namespace Vantel::Memory {

/// The free pages of the process, in spans by their length, with the system behind them.
///
/// Free pages are of two kinds: in the lists here, and in empty spans that the central cache still
/// holds ("idle"), since a span that is emptied and filled in turn would go back and forth. Both
/// count in freePages(). Idle pages only exist while no more than the threshold are free in all,
/// and CentralCache takes them back before a mapping is made or let go of: what is mapped, and
/// when, does not depend on them.
///
/// Threads: any; one lock. It may be taken with the lock of a class held, never the other way.
class PageCache {
public:
    static constexpr size_t kMaxPages = 128;  // longest span kept, and size of a new region

    PageCache();
    static PageCache& instance();

    PageMap& map() { return mMap; }
    uint32_t freePages() const { return static_cast<uint32_t>(freeAndIdle()); }
    uint32_t idlePages() const { return static_cast<uint32_t>(freeAndIdle() >> 32); }
    bool aboveThreshold(uint64_t more) const { return freePages() + more > mFreeThreshold; }

    /// A span of `pages` whose map entries carry `tag`. Null if the lists have none, or, with
    /// `mayMap`, if the system or the page limit refuses.
    Span* allocate(uint64_t pages, uint8_t tag, bool mayMap);

    /// Takes pages back, merges them with their free neighbours, and unmaps a region that is
    /// whole again, if more than the threshold are free.
    void release(Span* span);

    /// Counts an empty span that the central cache keeps; false if it must release() it instead.
    bool keepIdle(uint64_t pages);
    /// Undoes keepIdle(): the span has objects out again.
    void useIdle(uint64_t pages) { mFree.fetch_sub(bothCounts(pages), std::memory_order_relaxed); }
    /// Takes an idle span back. It was counted when it became idle, below the threshold.
    void releaseIdle(Span* span);

    /// Prints the lists to standard output.
    void dump();
    /// Unmaps every free span that is a whole region, whatever the threshold.
    void releaseFree();

    /// At the end of the process: unmaps the map's nodes and the span records.
    void unmapRecords();

private:
    static uint64_t bothCounts(uint64_t pages) { return pages | pages << 32; }
    uint64_t freeAndIdle() const { return mFree.load(std::memory_order_relaxed); }
    void addFree(uint64_t pages) { mFree.fetch_add(pages, std::memory_order_relaxed); }
    void subFree(uint64_t pages) { mFree.fetch_sub(pages, std::memory_order_relaxed); }

    // All of these with the lock held.
    Span* allocateLocked(uint64_t pages, uint8_t tag, bool mayMap);
    Span* newRecord(uint64_t pageId, uint64_t pageCount, uint64_t regionId);
    Span* newRegion(uint64_t pages, uint8_t tag);
    Span* split(Span* span, uint64_t pages, uint8_t tag);
    void unmap(Span* span);
    Span* freeNeighbour(uint64_t pageId, const Span* span, int& edges);
    int merge(Span* span);
    void absorb(Span* span, Span* neighbour);
    void putOnList(Span* span);
    void takeOffList(Span* span);
    SpanList* firstListFrom(uint64_t pages);
    void setEntries(Span* span, uint8_t tag);

    // Pages in the lists in the lower half, idle ones in both halves. Relaxed: the spans
    // themselves are handed over under locks.
    std::atomic<uint64_t> mFree{0};
    const uint32_t mFreeThreshold;
    SpanList mLists[kMaxPages + 1];                      // by page count; [0] is not used
    uint64_t mNonEmpty[(kMaxPages + 1 + 63) / 64] = {};  // a bit a list
    PageMap mMap;
    RecordArena<Span, 4> mSpans;
    Orbel::CMutex mMutex;
};

}  // namespace Vantel::Memory
