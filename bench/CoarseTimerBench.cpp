// Starting and stopping one of many coarse timers; the time is for the pair. The armed list is
// walked from its head, so the place of the timer counts.

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "Vantel/Orbel/CTimer.h"

namespace {

using Vantel::Orbel::CTimer;

constexpr uint32_t kHourMs = 3600000;

void nothing(unsigned long) {}

/// `armed` timers, due from an hour on, a second apart.
std::vector<std::unique_ptr<CTimer>> armedTimers(int64_t armed) {
    std::vector<std::unique_ptr<CTimer>> timers;
    for (int64_t i = armed; i-- > 0;) {
        timers.push_back(std::make_unique<CTimer>("bench"));
        timers.back()->start(&nothing, kHourMs + static_cast<uint32_t>(i) * 1000, 0, 0, 0);
    }
    return timers;
}

void startAndStop(benchmark::State& state, uint32_t delayMs) {
    const auto others = armedTimers(state.range(0));
    CTimer timer("measured");
    for (auto _ : state) {
        timer.start(&nothing, delayMs, 0, 0, 0);
        if (!timer.stop(false)) {
            state.SkipWithError("was not armed");
            break;
        }
    }
}

void startAndStopFirst(benchmark::State& state) {
    startAndStop(state, kHourMs / 2);
}
BENCHMARK(startAndStopFirst)->Arg(0)->Arg(100)->Arg(10000);

void startAndStopInTheMiddle(benchmark::State& state) {
    startAndStop(state, kHourMs + static_cast<uint32_t>(state.range(0)) * 500);
}
BENCHMARK(startAndStopInTheMiddle)->Arg(100)->Arg(10000);

void startAndStopLast(benchmark::State& state) {
    startAndStop(state, 2 * kHourMs + static_cast<uint32_t>(state.range(0)) * 1000);
}
BENCHMARK(startAndStopLast)->Arg(100)->Arg(10000);

}  // namespace
