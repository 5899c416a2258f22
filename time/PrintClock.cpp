#include "time/PrintClock.h"

#include <time.h>

#include <bit>

namespace Vantel::Orbel {

namespace {

constexpr int64_t kRefreshAfterUs = 400000;

// Not CTime's reading: that one logs its failure, and the line would come back here for a stamp.
// Coarse is exact to a tick of the kernel, plenty for an age of 0.4 seconds, and costs a fifth.
uint64_t monotonicUs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

PrintClock& PrintClock::instance() {
    static constinit PrintClock clock;
    return clock;
}

CTime PrintClock::now() {
    const uint64_t nowUs = monotonicUs();
    CTime time;
    return load(nowUs, time) ? time : refresh(nowUs);
}

bool PrintClock::load(uint64_t nowUs, CTime& time) const {
    const uint64_t sequence = mSequence.load(std::memory_order_acquire);
    if (sequence == 0 || sequence % 2 == 1 || mChanged.load(std::memory_order_acquire)) {
        return false;
    }
    Words words;
    for (size_t i = 0; i < words.size(); ++i) {
        words[i] = mWords[i].load(std::memory_order_acquire);
    }
    // Signed: another thread may have refreshed after we looked at the clock.
    const auto ageUs = static_cast<int64_t>(nowUs - mRefreshedUs.load(std::memory_order_acquire));
    if (ageUs >= kRefreshAfterUs || mSequence.load(std::memory_order_relaxed) != sequence) {
        return false;
    }
    time = CTime(std::bit_cast<SystemTime>(words));
    return true;
}

CTime PrintClock::refresh(uint64_t nowUs) {
    uint64_t sequence = mSequence.load(std::memory_order_relaxed);
    if (sequence % 2 == 1 ||
        !mSequence.compare_exchange_strong(sequence, sequence + 1, std::memory_order_acquire,
                                           std::memory_order_relaxed)) {
        return CTime::getCurrentTime();
    }
    // The flag goes before the clock is read: a change in between sets it again.
    mChanged.exchange(false, std::memory_order_acq_rel);
    const CTime time = CTime::getCurrentTime();
    const auto words = std::bit_cast<Words>(static_cast<const SystemTime&>(time));
    for (size_t i = 0; i < words.size(); ++i) {
        mWords[i].store(words[i], std::memory_order_release);
    }
    mRefreshedUs.store(nowUs, std::memory_order_release);
    mSequence.store(sequence + 2, std::memory_order_release);
    return time;
}

}  // namespace Vantel::Orbel
