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
/// when, does not depend on them. A class reserves its idle pages, and keeps the reservation when
/// it uses them again, so that nothing shared is written in that game; freePages() may thus be too
/// high until CentralCache takes all idle pages and reservations back.
///
/// Threads: any; one lock. It may be taken with the lock of a class held, never the other way.
class PageCache {
public:
    static constexpr size_t kMaxPages = 128;  // longest span kept, and size of a new region

    PageCache();
    static PageCache& instance();

    PageMap& map() { return mMap; }
    uint32_t freePages() const { return static_cast<uint32_t>(freeAndIdle()); }
    uint32_t reservedPages() const { return static_cast<uint32_t>(freeAndIdle() >> 32); }
    bool aboveThreshold() const { return freePages() > mFreeThreshold; }

    /// A span of `pages` whose map entries carry `tag`. Null if the lists have none, or, with
    /// `mayMap`, if the system or the page limit refuses.
    Span* allocate(uint64_t pages, uint8_t tag, bool mayMap);

    /// Counts pages as free that release() is about to take. Apart from it, so that idle pages can
    /// be taken back in between, and no new ones come.
    void addFree(uint64_t pages) { mFree.fetch_add(pages, std::memory_order_relaxed); }

    /// Takes a counted span back, merges it with its free neighbours, and unmaps a region that is
    /// whole again, if more than the threshold are free.
    void release(Span* span);

    /// Counts `pages` as free for a class to keep as idle; false if it must release() them.
    bool reserveIdle(uint64_t pages);
    /// Undoes reservations for pages that are in use now, or are the next to be releaseIdle()d.
    void unreserveIdle(uint64_t pages) {
        mFree.fetch_sub(bothCounts(pages), std::memory_order_relaxed);
    }
    /// Takes an unreserved idle span back. It was counted below the threshold, so that nothing is
    /// unmapped for it.
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

    // Free and reserved pages in the lower half, reserved ones in the upper one. Relaxed: the spans
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
