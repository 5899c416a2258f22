#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Vantel/Orbel/CMutex.h"
#include "memory/cache/PageCache.h"
#include "memory/cache/SizeClass.h"
#include "memory/cache/Span.h"
#include "memory/cache/Stock.h"

namespace Vantel::Memory {

/// The spans of each size class, between the threads' caches and the page cache.
///
/// Threads: any; a lock a class.
class CentralCache {
public:
    explicit CentralCache(PageCache& pages) : mPages(pages) {}
    static CentralCache& instance();

    /// Takes up to `count` objects of a class, at least one. Returns how many, 0 if there is no
    /// memory.
    size_t fetch(size_t index, size_t count, void** objects);

    /// Takes `count` objects of a class back, into the processor's stock or into their spans.
    void release(size_t index, void* const* objects, size_t count);
    /// The same, into their spans only.
    void releaseToSpans(size_t index, void* const* objects, size_t count);

    /// Whole pages, for what is larger than any class. Null if there is no memory.
    Span* allocatePages(uint64_t pages);
    void releasePages(Span* span);

    /// Puts all stocks back into their spans. No lock may be held; the same below.
    void emptyStocks();
    /// Empties the stocks, hands all idle spans to the page cache, and drops the reservations.
    void reclaim();

    /// Prints the spans of a class to standard output.
    void dump(size_t index);

private:
    // One line of the processor's cache or more each: neighbours are used by other threads.
    struct alignas(64) Class {
        Orbel::CMutex mutex;
        SpanList spans;      // have objects to give, and some out
        SpanList exhausted;  // all objects out; apart, or each fetch would walk over them
        SpanList idle;       // no object out: free pages, see PageCache
        uint64_t idlePages = 0;
        // At least idlePages. Atomic to be looked at without the lock; written only with it.
        std::atomic<uint64_t> reservedPages{0};
    };
    class ClassGuard;

    // With the lock of the class held; the guard is let go of where a span moves to or from afar.
    Span* spanWithObjects(size_t index, ClassGuard& guard);
    Span* knownSpan(Class& spans);
    Span* spanOf(const void* object);
    void emptied(Class& spans, Span* span, ClassGuard& guard, bool stocksToo);
    void putBack(Class& spans, void* const* objects, size_t count, ClassGuard& guard,
                 bool stocksToo);
    bool nothingToReclaim() const;
    bool keepIdle(Class& spans, Span* span);
    static Span* takeIdle(Class& spans);

    // Without a lock.
    bool stock(size_t index, void* const* objects, size_t count);
    size_t takeFromStocks(size_t index, size_t count, void** objects);
    void emptyVisibleStocks();
    bool emptyStock(Stock& stock);
    void reclaimIdle();
    void givePages(Span* span, bool stocksToo);

    PageCache& mPages;
    Class mClasses[SizeClass::kFreeLists];
    // They go back before anything is mapped or unmapped, and when a thread ends.
    Stocks mStocks;
    // Whether any stock may have objects. Written when it changes only: all threads read it.
    std::atomic<bool> mStocked{false};
};

}  // namespace Vantel::Memory
