#include "memory/cache/CentralCache.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/base/Log.h"
#include "thread/BackOff.h"

namespace Vantel::Memory {

namespace {

constexpr uint8_t tagOf(size_t index) {
    return static_cast<uint8_t>(index + 1);
}

}  // namespace

/// Holds the lock of a class. Spins first, ever longer: the lock is held for some nanoseconds, and
/// sleeping and waking take thousands.
class CentralCache::ClassGuard {
public:
    explicit ClassGuard(Class& spans) : mMutex(spans.mutex) { enter(); }
    ClassGuard(const ClassGuard&) = delete;
    ClassGuard& operator=(const ClassGuard&) = delete;
    ~ClassGuard() { mMutex.leave(); }

    void enter() {
        for (int pauses = 8; pauses <= kMaxPauses; pauses *= 2) {
            if (mMutex.tryEnter()) {
                return;
            }
            for (int i = 0; i < pauses; ++i) {
                Orbel::spinPause();
            }
        }
        mMutex.enter();
    }
    void leave() { mMutex.leave(); }

private:
    static constexpr int kMaxPauses = 512;
    Orbel::CMutex& mMutex;
};

size_t CentralCache::fetch(size_t index, size_t count, void** objects) {
    if (const size_t taken = takeFromStocks(index, count, objects)) {
        return taken;
    }
    Class& spans = mClasses[index];
    ClassGuard guard(spans);
    Span* span = spanWithObjects(index, guard);
    if (span == nullptr) {
        return 0;
    }
    const size_t taken = span->take(count, objects);
    if (span->exhausted()) {
        spans.spans.erase(span);
        spans.exhausted.pushFront(span);
    }
    return taken;
}

/// The front of the class's spans, filled up if there was none; null if there is no memory.
Span* CentralCache::spanWithObjects(size_t index, ClassGuard& guard) {
    Class& spans = mClasses[index];
    if (Span* span = knownSpan(spans)) {
        return span;
    }
    const size_t size = SizeClass::size(index);
    const size_t pages = SizeClass::spanPages(size);
    const bool nothingLeft = nothingToReclaim();
    Span* span = mPages.allocate(pages, tagOf(index), nothingLeft);
    if (span == nullptr && !nothingLeft) {
        guard.leave();  // reclaiming takes the locks of all classes, one by one
        reclaim();
        guard.enter();
        if (Span* found = knownSpan(spans)) {
            return found;  // came back meanwhile
        }
        span = mPages.allocate(pages, tagOf(index), true);
    }
    if (span != nullptr) {
        span->cut(size);
        spans.spans.pushFront(span);
    }
    return span;
}

/// A span of the class with objects to give, an idle one if there is no other.
Span* CentralCache::knownSpan(Class& spans) {
    if (spans.spans.empty()) {
        if (spans.idle.empty()) {
            return nullptr;
        }
        spans.spans.pushFront(takeIdle(spans));
    }
    return spans.spans.front();
}

/// From this processor's stock, else from the first other one that has objects.
size_t CentralCache::takeFromStocks(size_t index, size_t count, void** objects) {
    if (!mStocked.load(std::memory_order_relaxed)) {
        return 0;
    }
    Stock* mine = mStocks.mine(false);
    size_t taken = mine == nullptr ? 0 : mine->take(index, count, objects);
    if (taken == 0) {
        mStocks.forEach([&](Stock& stock) {
            taken = stock.take(index, count, objects);
            return taken > 0;
        });
    }
    return taken;
}

/// False if the objects must go to their spans. Above the threshold what threads do not cache goes
/// there at once: it would keep pages from going back.
bool CentralCache::stock(size_t index, void* const* objects, size_t count) {
    if (index >= SizeClass::kThreadLists && mPages.aboveThreshold()) {
        return false;
    }
    Stock* mine = mStocks.mine(true);
    return mine != nullptr && mine->put(index, objects, count, mStocked);
}

void CentralCache::release(size_t index, void* const* objects, size_t count) {
    if (!stock(index, objects, count)) {
        releaseToSpans(index, objects, count);
    }
}

void CentralCache::releaseToSpans(size_t index, void* const* objects, size_t count) {
    Class& spans = mClasses[index];
    ClassGuard guard(spans);
    putBack(spans, objects, count, guard, true);
}

void CentralCache::putBack(Class& spans, void* const* objects, size_t count, ClassGuard& guard,
                           bool stocksToo) {
    for (size_t i = 0; i < count;) {
        Span* span = spanOf(objects[i]);
        SpanList& list = span->exhausted() ? spans.exhausted : spans.spans;
        i += span->put(objects + i, count - i);
        if (span->useCount == 0) {
            list.erase(span);
            emptied(spans, span, guard, stocksToo);
        } else if (&list == &spans.exhausted) {
            list.erase(span);
            spans.spans.pushFront(span);
        }
    }
}

bool CentralCache::nothingToReclaim() const {
    return mPages.reservedPages() == 0 && !mStocked.load(std::memory_order_relaxed);
}

/// The span of an object; an address that never was one ends the process.
Span* CentralCache::spanOf(const void* object) {
    const uint64_t page = reinterpret_cast<uintptr_t>(object) >> kPageShift;
    Span* span = mPages.map().get(page).span();
    if (span == nullptr) {
        ORBEL_LOG_FATAL("invalid object address %p, pageId = %ld\n", object,
                        static_cast<long>(page));
        std::abort();
    }
    return span;
}

/// `span` is on no list.
void CentralCache::emptied(Class& spans, Span* span, ClassGuard& guard, bool stocksToo) {
    if (!keepIdle(spans, span)) {
        guard.leave();
        givePages(span, stocksToo);
        guard.enter();
    }
}

bool CentralCache::keepIdle(Class& spans, Span* span) {
    const uint64_t reserved = spans.reservedPages.load(std::memory_order_relaxed);
    const uint64_t pages = span->pageCount;
    if (spans.idlePages + pages > reserved) {
        if (!mPages.reserveIdle(pages)) {
            return false;
        }
        spans.reservedPages.store(reserved + pages, std::memory_order_relaxed);
    }
    spans.idlePages += pages;
    spans.idle.pushFront(span);
    return true;
}

Span* CentralCache::takeIdle(Class& spans) {
    Span* span = spans.idle.front();
    spans.idle.erase(span);
    spans.idlePages -= span->pageCount;
    return span;
}

Span* CentralCache::allocatePages(uint64_t pages) {
    const bool nothingLeft = nothingToReclaim();
    Span* span = mPages.allocate(pages, 0, nothingLeft);
    if (span == nullptr && !nothingLeft) {
        reclaim();
        span = mPages.allocate(pages, 0, true);
    }
    return span;
}

void CentralCache::releasePages(Span* span) {
    givePages(span, true);
}

/// Above the threshold, what is idle or in stock keeps regions from being whole: it goes back
/// first, but for the stocks if they are what the span came from.
void CentralCache::givePages(Span* span, bool stocksToo) {
    mPages.addFree(span->pageCount);
    if (mPages.aboveThreshold()) {
        if (stocksToo) {
            emptyVisibleStocks();
        }
        reclaimIdle();
    }
    mPages.release(span);
}

void CentralCache::emptyStocks() {
    // The mark goes first: whoever puts behind our look sets it anew.
    if (mStocked.exchange(false, std::memory_order_seq_cst)) {
        emptyVisibleStocks();
    }
}

/// All but those that are in use just now, for which the mark stays.
void CentralCache::emptyVisibleStocks() {
    mStocks.forEach([this](Stock& stock) {
        if (stock.busy() || !emptyStock(stock)) {
            mStocked.store(true, std::memory_order_seq_cst);
        }
        return false;
    });
}

/// False if something is left: somebody came in between.
bool CentralCache::emptyStock(Stock& stock) {
    bool empty = true;
    for (size_t index = 0; index < SizeClass::kFreeLists; ++index) {
        void* objects[SizeClass::kMaxMove];  // a copy: the lock is let go of in between
        while (const size_t count = stock.take(index, SizeClass::kMaxMove, objects)) {
            ClassGuard guard(mClasses[index]);
            putBack(mClasses[index], objects, count, guard, false);
        }
        empty = empty && !stock.has(index);
    }
    return empty;
}

void CentralCache::reclaim() {
    emptyStocks();
    reclaimIdle();
}

void CentralCache::reclaimIdle() {
    if (mPages.reservedPages() == 0) {
        return;
    }
    for (Class& spans : mClasses) {
        if (spans.reservedPages.load(std::memory_order_relaxed) == 0) {
            continue;
        }
        ClassGuard guard(spans);
        mPages.unreserveIdle(spans.reservedPages.exchange(0, std::memory_order_relaxed));
        while (!spans.idle.empty()) {
            mPages.releaseIdle(takeIdle(spans));
        }
    }
}

void CentralCache::dump(size_t index) {
    Class& spans = mClasses[index];
    ClassGuard guard(spans);
    std::printf("start dump central cache index %lu, bytes %lu, size %lu\n", index,
                SizeClass::size(index), spans.spans.size() + spans.exhausted.size());
    uint64_t freeCount = 0;
    for (const SpanList* list : {&spans.spans, &spans.exhausted}) {
        for (const Span* span = list->front(); span != list->end(); span = span->next) {
            std::printf("    user %lu, total %lu, objSize = %lu\n", span->useCount, span->objCount,
                        span->objSize);
            freeCount += span->objCount - span->useCount;
        }
    }
    std::printf("end dump central cache index %lu, free count %lu\n", index, freeCount);
}

}  // namespace Vantel::Memory
