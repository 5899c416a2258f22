#pragma once

#include <sched.h>

#include <cstdint>
#include <ctime>

namespace Vantel::Orbel {

/// Tells the processor that this is a spin loop: it saves power and the sibling's time.
inline void spinPause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#endif
}

/// Sleeps by the monotonic clock; a signal ends it early, and the caller looks again anyway.
inline void shortSleep(long ns) {
    const timespec time{0, ns};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);
}

/// The waiting of a loop whose passes fail: first it spins, then it yields, then it sleeps.
class BackOff {
public:
    void wait() {
        if (mPasses < kSpins) {
            spinPause();
        } else if (mPasses < kSpins + kYields) {
            sched_yield();
        } else {
            shortSleep(kSleepNs);
            return;  // the count has done its work
        }
        ++mPasses;
    }

private:
    static constexpr uint32_t kSpins = 100;
    static constexpr uint32_t kYields = 400;
    static constexpr long kSleepNs = 10000;

    uint32_t mPasses = 0;
};

}  // namespace Vantel::Orbel
