#include "memory/cache/CentralCache.h"

#include <cstdio>
#include <cstdlib>

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

size_t CentralCache::fetch(size_t index, size_t count, void*& first) {
    Class& spans = mClasses[index];
    ClassGuard guard(spans);
    Span* span = spanWithObjects(index, guard);
    return span == nullptr ? 0 : takeObjects(spans, span, count, first);
}

/// The front of the class's spans, filled up if there was none; null if there is no memory.
Span* CentralCache::spanWithObjects(size_t index, ClassGuard& guard) {
    Class& spans = mClasses[index];
    if (Span* span = knownSpan(spans)) {
        return span;
    }
    const size_t size = SizeClass::size(index);
    const size_t pages = SizeClass::spanPages(size);
    const bool nothingIdle = mPages.idlePages() == 0;
    Span* span = mPages.allocate(pages, tagOf(index), nothingIdle);
    if (span == nullptr && !nothingIdle) {
        guard.leave();  // reclaiming takes the locks of all classes, one by one
        reclaimIdle();
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
        Span* span = takeIdle(spans);
        mPages.useIdle(span->pageCount);
        spans.spans.pushFront(span);
    }
    return spans.spans.front();
}

/// First those that came back, then fresh ones from the end of the span downwards.
size_t CentralCache::takeObjects(Class& spans, Span* span, size_t count, void*& first) {
    size_t taken = 0;
    void** link = &first;
    while (taken < count && span->freeList != nullptr) {
        *link = span->freeList;
        link = &nextObject(span->freeList);
        span->freeList = *link;
        ++taken;
    }
    for (; taken < count && span->uncut > 0; ++taken) {
        --span->uncut;
        *link = span->start() + span->uncut * span->objSize;
        link = &nextObject(*link);
    }
    *link = nullptr;
    span->useCount += taken;
    if (span->exhausted()) {
        spans.spans.erase(span);
        spans.exhausted.pushFront(span);
    }
    return taken;
}

void* CentralCache::release(size_t index, void* first, size_t count) {
    Class& spans = mClasses[index];
    ClassGuard guard(spans);
    while (count > 0) {
        const uint64_t page = reinterpret_cast<uintptr_t>(first) >> kPageShift;
        Span* span = mPages.map().get(page).span();
        if (span == nullptr) {
            ORBEL_LOG_FATAL("invalid object address %p, pageId = %ld\n", first,
                            static_cast<long>(page));
            std::abort();
        }
        SpanList& list = span->exhausted() ? spans.exhausted : spans.spans;
        first = putObjects(span, first, count);
        if (span->useCount == 0) {
            list.erase(span);
            emptied(spans, span, guard);
        } else if (&list == &spans.exhausted) {
            list.erase(span);
            spans.spans.pushFront(span);
        }
    }
    return first;
}

/// Puts those objects of the chain that come first and are of `span` back into it, at once.
/// Lowers `count` by them; the rest of the chain.
void* CentralCache::putObjects(Span* span, void* first, size_t& count) {
    void* last = first;
    void* rest = nextObject(last);
    uint64_t run = 1;
    while (run < count && span->contains(rest)) {
        last = rest;
        rest = nextObject(last);
        ++run;
    }
    nextObject(last) = span->freeList;
    span->freeList = first;
    span->useCount -= run;
    count -= run;
    return rest;
}

/// `span` is on no list.
void CentralCache::emptied(Class& spans, Span* span, ClassGuard& guard) {
    span->recut();
    if (mPages.keepIdle(span->pageCount)) {
        spans.idle.pushFront(span);
        spans.idleCount.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    guard.leave();
    releasePages(span);
    guard.enter();
}

Span* CentralCache::takeIdle(Class& spans) {
    Span* span = spans.idle.front();
    spans.idle.erase(span);
    spans.idleCount.fetch_sub(1, std::memory_order_relaxed);
    return span;
}

Span* CentralCache::allocatePages(uint64_t pages) {
    const bool nothingIdle = mPages.idlePages() == 0;
    Span* span = mPages.allocate(pages, 0, nothingIdle);
    if (span == nullptr && !nothingIdle) {
        reclaimIdle();
        span = mPages.allocate(pages, 0, true);
    }
    return span;
}

void CentralCache::releasePages(Span* span) {
    if (mPages.idlePages() != 0 && mPages.aboveThreshold(span->pageCount)) {
        reclaimIdle();  // an idle span would keep its region from being whole
    }
    mPages.release(span);
}

void CentralCache::reclaimIdle() {
    for (Class& spans : mClasses) {
        if (spans.idleCount.load(std::memory_order_relaxed) == 0) {
            continue;
        }
        ClassGuard guard(spans);
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
