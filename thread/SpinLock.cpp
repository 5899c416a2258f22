#include "Vantel/Orbel/SpinLock.h"

#include "thread/BackOff.h"

namespace Vantel::Orbel {

SpinLock::SpinLock() : mInternal(new Internal) {}

SpinLock::~SpinLock() {
    delete mInternal;
}

void SpinLock::enterBusy() {
    static_assert(sizeof(Internal) == 64 && alignof(Internal) == 64, "a cache line of its own");
    constexpr uint32_t kSpins = 2000;
    constexpr uint32_t kSleepAt = 5000;
    constexpr long kSleepNs = 500;
    // Reading does not take the line away from its owner; only a free lock is worth the exchange.
    const auto looksFree = [this] {
        return mInternal->locked.load(std::memory_order_relaxed) == 0;
    };
    for (uint32_t counter = 0;;) {
        if (counter < kSpins) {
            do {
                spinPause();
                ++counter;
            } while (counter < kSpins && !looksFree());
        } else if (counter == kSleepAt) {
            shortSleep(kSleepNs);
            counter = kSpins + 1;
        } else {
            sched_yield();
            ++counter;
        }
        if (looksFree() && tryEnter()) {
            return;
        }
    }
}

}  // namespace Vantel::Orbel
