#pragma once

#include <cstdint>
#include <ctime>

namespace Vantel::Orbel {

constexpr int64_t kNsPerSecond = 1'000'000'000;

/// The moment `timeoutNs` from now on CLOCK_MONOTONIC. False, with errno, if the clock fails.
inline bool monotonicDeadline(uint64_t timeoutNs, timespec& deadline) {
    if (clock_gettime(CLOCK_MONOTONIC, &deadline) != 0) {
        return false;
    }
    deadline.tv_sec += static_cast<time_t>(timeoutNs / kNsPerSecond);
    deadline.tv_nsec += static_cast<long>(timeoutNs % kNsPerSecond);
    if (deadline.tv_nsec >= kNsPerSecond) {
        deadline.tv_nsec -= kNsPerSecond;
        ++deadline.tv_sec;
    }
    return true;
}

}  // namespace Vantel::Orbel
