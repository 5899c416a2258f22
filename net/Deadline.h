#pragma once

#include <algorithm>
#include <chrono>

namespace Vantel::Orbel {

/// The end of a blocking call, counted from the construction. A negative time-out never ends.
class Deadline {
public:
    explicit Deadline(int timeoutMs)
        : mTimeoutMs(timeoutMs),
          mEnd(std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs)) {}

    /// Whole milliseconds left, 0 if it has passed; a negative time-out as it was given.
    int leftMs() const {
        if (mTimeoutMs < 0) {
            return mTimeoutMs;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            mEnd - std::chrono::steady_clock::now());
        return static_cast<int>(std::clamp<long long>(left.count(), 0, mTimeoutMs));
    }

private:
    int mTimeoutMs;
    std::chrono::steady_clock::time_point mEnd;
};

}  // namespace Vantel::Orbel
