#pragma once

#include <chrono>
#include <thread>

namespace OrbelTest {

/// Polls `condition` every millisecond until it holds or `deadlineMs` have passed; the last answer.
/// The deadline only bounds a failure: keep it generous, the machine may be busy.
template <class Condition>
bool waitFor(Condition&& condition, int deadlineMs = 30000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace OrbelTest
