// Adding, cancelling and firing many timers of one loop; times are per timer.

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

#include "Vantel/Orbel/EventLoop.h"

namespace {

using Vantel::Orbel::EventLoop;

/// Delays from an hour on, in no order.
std::vector<int64_t> farDelays(int64_t count) {
    std::mt19937 random(7);
    std::vector<int64_t> delays(static_cast<size_t>(count));
    for (int64_t& delay : delays) {
        delay = 3600000 + static_cast<int64_t>(random() % 3600000);
    }
    return delays;
}

std::vector<unsigned long> addAll(EventLoop& loop, const std::vector<int64_t>& delays) {
    std::vector<unsigned long> ids;
    ids.reserve(delays.size());
    for (const int64_t delay : delays) {
        ids.push_back(loop.addTimer([] {}, delay, false));
    }
    return ids;
}

void addTimers(benchmark::State& state) {
    const auto delays = farDelays(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        auto loop = std::make_unique<EventLoop>();
        state.ResumeTiming();
        const auto ids = addAll(*loop, delays);
        state.PauseTiming();
        if (!loop->resetTimer(ids.back())) {
            state.SkipWithError("lost a timer");
        }
        loop.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(addTimers)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void cancelTimers(benchmark::State& state) {
    const auto delays = farDelays(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        auto loop = std::make_unique<EventLoop>();
        const auto ids = addAll(*loop, delays);
        state.ResumeTiming();
        for (const unsigned long id : ids) {
            loop->cancelTimer(id);
        }
        state.PauseTiming();
        if (loop->resetTimer(ids.back())) {
            state.SkipWithError("kept a timer");
        }
        loop.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(cancelTimers)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

/// All are due when the loop starts.
void fireTimers(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto loop = std::make_unique<EventLoop>();
        int64_t fired = 0;
        for (int64_t i = 0; i < state.range(0); ++i) {
            loop->addTimer(
                [&fired, &loop, last = state.range(0)] {
                    if (++fired == last) {
                        loop->quit();
                    }
                },
                -(i * 7919 % 1000), false);
        }
        state.ResumeTiming();
        loop->loop();
        state.PauseTiming();
        if (fired != state.range(0)) {
            state.SkipWithError("lost a timer");
        }
        loop.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(fireTimers)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
