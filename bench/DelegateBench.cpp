// A delegate beside a std::function with the same target, and an emission beside a loop over a
// vector of std::function under a recursive mutex.
#include <benchmark/benchmark.h>

#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "Vantel/Orbel/TDelegate.h"
#include "Vantel/Orbel/TSignal.h"

using Vantel::Orbel::TDelegate;
using Vantel::Orbel::TSignal;

namespace {

/// A second thread, asleep: without one the C library leaves the atomic instructions of its locks
/// out, which no process of ours ever sees.
class Companion {
public:
    ~Companion() {
        mDone.set_value();
        mThread.join();
    }

private:
    std::promise<void> mDone;
    std::thread mThread{[this] { mDone.get_future().wait(); }};
} companion;

int64_t total = 0;

void add(int value) {
    total += value;
}

struct Counter {
    void add(int value) { sum += value; }
    int64_t sum = 0;
};

/// Calls `call` with 1 and looks whether `sum` went up by as much.
template <class Call>
void measure(benchmark::State& state, Call& call, const int64_t& sum) {
    benchmark::DoNotOptimize(&call);
    const int64_t before = sum;
    int64_t calls = 0;
    for (auto _ : state) {
        call(1);
        benchmark::ClobberMemory();
        ++calls;
    }
    if (sum - before != calls) {
        state.SkipWithError("calls were lost");
    }
}

void functionByDelegate(benchmark::State& state) {
    TDelegate<void, int> call(&add);
    measure(state, call, total);
}
BENCHMARK(functionByDelegate);

void functionByStdFunction(benchmark::State& state) {
    std::function<void(int)> call(&add);
    measure(state, call, total);
}
BENCHMARK(functionByStdFunction);

void memberByDelegate(benchmark::State& state) {
    Counter counter;
    TDelegate<void, int> call(&counter, &Counter::add);
    measure(state, call, counter.sum);
}
BENCHMARK(memberByDelegate);

void memberByStdFunction(benchmark::State& state) {
    Counter counter;
    std::function<void(int)> call(std::bind(&Counter::add, &counter, std::placeholders::_1));
    measure(state, call, counter.sum);
}
BENCHMARK(memberByStdFunction);

void emission(benchmark::State& state) {
    std::vector<Counter> counters(static_cast<size_t>(state.range(0)));
    TSignal<int> signal;
    for (Counter& counter : counters) {
        signal.attach({&counter, &Counter::add});
    }
    measure(state, signal, counters.back().sum);
}
BENCHMARK(emission)->Arg(1)->Arg(8);

void loopUnderRecursiveMutex(benchmark::State& state) {
    std::vector<Counter> counters(static_cast<size_t>(state.range(0)));
    struct Slots {
        void operator()(int value) {
            const std::lock_guard guard(mutex);
            for (const auto& slot : slots) {
                slot(value);
            }
        }
        std::recursive_mutex mutex;
        std::vector<std::function<void(int)>> slots;
    } list;
    for (Counter& counter : counters) {
        list.slots.emplace_back(std::bind(&Counter::add, &counter, std::placeholders::_1));
    }
    measure(state, list, counters.back().sum);
}
BENCHMARK(loopUnderRecursiveMutex)->Arg(1)->Arg(8);

}  // namespace
