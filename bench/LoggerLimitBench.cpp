// What a message costs that the rate limiter keeps back, with 1 and 4 threads on its one lock.
#include <benchmark/benchmark.h>

#include "Vantel/LoggerLimit.h"

using Vantel::ILogger;

namespace {

void lineKeptBack(benchmark::State& state) {
    int64_t evaluated = 0;
    for (auto _ : state) {
        ORBEL_LOG_LIMIT_COUNT(0, ILogger::kInfo, "Bench", "%d\n", static_cast<int>(++evaluated));
    }
    if (evaluated != 0) {
        state.SkipWithError("a line got through");
    }
}
BENCHMARK(lineKeptBack)->Threads(1)->Threads(4);

void lineKeptBackByTime(benchmark::State& state) {
    int64_t evaluated = 0;
    for (auto _ : state) {
        ORBEL_LOG_LIMIT_RATE(3600000, ILogger::kInfo, "Bench", "%d\n",
                             static_cast<int>(++evaluated));
    }
    if (evaluated != 0) {
        state.SkipWithError("a line got through");
    }
}
BENCHMARK(lineKeptBackByTime);

}  // namespace
