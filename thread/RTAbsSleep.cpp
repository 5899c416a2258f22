#include "Vantel/Orbel/RTAbsSleep.h"

#include <cerrno>
#include <ctime>
#include <limits>

#include "thread/MonotonicTime.h"

namespace Vantel::Orbel {

namespace {

long nowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

/// `ns` after `time`, at most the end of time.
long after(long time, long ns) {
    long sum = 0;
    return __builtin_add_overflow(time, ns, &sum) ? std::numeric_limits<long>::max() : sum;
}

void sleepUntil(long ns) {
    const timespec wake{ns / kNsPerSecond, ns % kNsPerSecond};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wake, nullptr) == EINTR) {
    }
}

}  // namespace

RTAbsSleep::RTAbsSleep(long periodNs, long backoffNs)
    : mPeriodNs(periodNs), mBackoffNs(backoffNs) {}

void RTAbsSleep::resetRhythm() {
    mNextWakeNs = 0;
}

void RTAbsSleep::waitNextPeriod() {
    if (mNextWakeNs > 0) {
        sleepUntil(mNextWakeNs);
    }
}

void RTAbsSleep::periodComplete() {
    mNextWakeNs = after(nowNs(), mPeriodNs);
}

void RTAbsSleep::autoBackoff() {
    if (mBackoffNs > 0) {
        sleepUntil(after(nowNs(), mBackoffNs));
    }
}

void RTAbsSleep::setPeriodNs(long periodNs) {
    mPeriodNs = periodNs;
}

void RTAbsSleep::waitPeriodWithStepForward(long stepNs) {
    const long now = nowNs();
    const long next = after(mNextWakeNs, stepNs);
    // After an overrun the rhythm starts anew: what was missed is not caught up with.
    mNextWakeNs = mNextWakeNs == 0 || next < now ? after(now, stepNs) : next;
    sleepUntil(mNextWakeNs);
}

void RTAbsSleep::manualBackoff(uint64_t ns) {
    constexpr auto kMax = static_cast<uint64_t>(std::numeric_limits<long>::max());
    sleepUntil(after(nowNs(), static_cast<long>(ns < kMax ? ns : kMax)));
}

}  // namespace Vantel::Orbel
