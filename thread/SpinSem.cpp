#include "Vantel/Orbel/SpinSem.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <limits>

#include "thread/BackOff.h"
#include "thread/MonotonicTime.h"
#include "thread/SysSemaphore.h"

namespace Vantel::Orbel {

/// The units that are there, or, below 0, how many threads sleep for one. Who adds units to a
/// negative count owes the semaphore one post for each sleeper that they serve; who gives up
/// sleeping takes itself out of the count first, or else takes the post that it is owed.
class alignas(64) SpinSemImpl {
public:
    SpinSemImpl(uint32_t initialCount, uint32_t spinCount)
        : mCount(static_cast<int32_t>(initialCount)), mSpinCount(spinCount) {}

    /// Takes up to `max` units if there are any; how many.
    int32_t tryTake(uint32_t max);
    /// Spins for up to `max` units; how many it got.
    int32_t spin(uint32_t max);
    /// Takes one unit or sleeps for one. A `timeoutUs` of 0 does not sleep, below 0 has no limit.
    bool takeOrSleep(long timeoutUs);
    void post(uint32_t count);

private:
    int32_t takeSome(int32_t found, uint32_t max);
    bool sleep(long timeoutUs);
    bool deregister();

    friend struct SpinSemLayout;

    std::atomic<int32_t> mCount;
    const uint32_t mSpinCount;
    SysSemaphore mSleepers;
};

struct SpinSemLayout {
    static_assert(sizeof(SpinSemImpl) == 64 && alignof(SpinSemImpl) == 64);
    static_assert(offsetof(SpinSemImpl, mCount) == 0 && offsetof(SpinSemImpl, mSpinCount) == 4);
};

/// One attempt to take up to `max` of the `found` units.
int32_t SpinSemImpl::takeSome(int32_t found, uint32_t max) {
    const auto wanted = static_cast<int32_t>(std::min(static_cast<uint32_t>(found), max));
    return mCount.compare_exchange_strong(found, found - wanted) ? wanted : 0;
}

int32_t SpinSemImpl::tryTake(uint32_t max) {
    if (max == 0) {
        return 0;
    }
    for (;;) {
        const int32_t found = mCount.load(std::memory_order_relaxed);
        if (found <= 0) {
            return 0;
        }
        const int32_t taken = takeSome(found, max);
        if (taken > 0) {
            return taken;
        }
    }
}

int32_t SpinSemImpl::spin(uint32_t max) {
    for (uint32_t pass = 0; pass < mSpinCount; ++pass) {
        const int32_t found = mCount.load(std::memory_order_relaxed);
        const int32_t taken = found > 0 ? takeSome(found, max) : 0;
        if (taken > 0) {
            return taken;
        }
        spinPause();
    }
    return 0;
}

bool SpinSemImpl::takeOrSleep(long timeoutUs) {
    if (mCount.fetch_sub(1) > 0) {
        return true;
    }
    if (!sleep(timeoutUs)) {
        return deregister();
    }
    // The semaphore orders us behind who woke us; this shows it to tools that do not know its
    // waits by the monotonic clock, and costs nothing beside them.
    (void)mCount.load(std::memory_order_acquire);
    return true;
}

bool SpinSemImpl::sleep(long timeoutUs) {
    if (timeoutUs < 0) {
        return mSleepers.wait();
    }
    constexpr long kMaxUs = std::numeric_limits<long>::max() / 1000;
    timespec deadline;
    return timeoutUs != 0 &&
           monotonicDeadline(static_cast<uint64_t>(std::min(timeoutUs, kMaxUs)) * 1000, deadline) &&
           mSleepers.waitUntil(deadline);
}

/// After a sleep that got nothing. True if a post has counted this thread as woken meanwhile: then
/// a unit is its own, and the semaphore's post is there or on its way.
bool SpinSemImpl::deregister() {
    for (BackOff backOff;; backOff.wait()) {
        int32_t found = mCount.load();
        while (found < 0) {
            if (mCount.compare_exchange_weak(found, found + 1)) {
                return false;
            }
        }
        if (mSleepers.tryWait()) {
            return true;
        }
    }
}

void SpinSemImpl::post(uint32_t count) {
    const int32_t old = mCount.fetch_add(static_cast<int32_t>(count));
    if (old < 0) {
        const uint32_t sleepers = 0U - static_cast<uint32_t>(old);
        for (uint32_t wake = std::min(sleepers, count); wake > 0; --wake) {
            mSleepers.post();
        }
    }
}

SpinSem::SpinSem(uint32_t initialCount, uint32_t spinCount)
    : mInternal(new SpinSemImpl(initialCount, spinCount)) {}

SpinSem::~SpinSem() {
    delete mInternal;
}

bool SpinSem::tryWait() {
    return mInternal->tryTake(1) == 1;
}

bool SpinSem::wait(long timeoutUs) {
    return mInternal->tryTake(1) == 1 || mInternal->spin(1) == 1 ||
           mInternal->takeOrSleep(timeoutUs);
}

int32_t SpinSem::tryWaitMany(uint32_t max) {
    return mInternal->tryTake(max);
}

int32_t SpinSem::waitMany(uint32_t max, long timeoutUs) {
    if (max == 0) {
        return 0;
    }
    int32_t taken = mInternal->tryTake(max);
    if (taken == 0) {
        taken = mInternal->spin(max);
    }
    if (taken == 0 && mInternal->takeOrSleep(timeoutUs)) {
        taken = 1 + mInternal->tryTake(max - 1);
    }
    return taken;
}

void SpinSem::post(uint32_t count) {
    mInternal->post(count);
}

}  // namespace Vantel::Orbel
