// What a log line costs: with three arguments to an attached delegate, below the level, and the
// parts that it is made of.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"

using Vantel::ILogger;

namespace {

int64_t lines = 0;

void onLine(ILogger::LoggerLevel, const char* line, int length) {
    lines += length > 0 && line[length - 1] == '\n' ? 1 : 0;
}

void setUp() {
    ILogger* logger = ILogger::instance();
    logger->init("bench", 4096);
    logger->setOutput(0);
    logger->setLevel(ILogger::kInfo);
    logger->attach({&onLine});
}

void lineToDelegate(benchmark::State& state) {
    setUp();
    const int64_t before = lines;
    int64_t printed = 0;
    for (auto _ : state) {
        ORBEL_LOG_WARN("block %s of pool %d has %ld readers\n", "name", 5, 123456L);
        ++printed;
    }
    if (lines - before != printed) {
        state.SkipWithError("lines were lost");
    }
}
BENCHMARK(lineToDelegate);

void lineBelowTheLevel(benchmark::State& state) {
    setUp();
    const int64_t before = lines;
    for (auto _ : state) {
        ORBEL_LOG_DEBUG("block %s of pool %d has %ld readers\n", "name", 5, 123456L);
    }
    if (lines != before) {
        state.SkipWithError("a line got through");
    }
}
BENCHMARK(lineBelowTheLevel);

/// As an application does it.
void lineBelowTheLevelByInstance(benchmark::State& state) {
    setUp();
    for (auto _ : state) {
        ILogger::instance()->print(ILogger::kDebug, "Bench", "%s of %d\n", "name", 5);
    }
}
BENCHMARK(lineBelowTheLevelByInstance);

/// The floor: the message alone.
void snprintfOfTheMessage(benchmark::State& state) {
    char text[4096];
    for (auto _ : state) {
        const int length =
            std::snprintf(text, sizeof text, "[%s:%d]block %s of pool %d has %ld readers\n",
                          "LogBench", __LINE__, "name", 5, 123456L);
        benchmark::DoNotOptimize(length);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(snprintfOfTheMessage);

void stampReading(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Vantel::Orbel::CTime::getCurTimeForPrint());
    }
}
BENCHMARK(stampReading);

void monotonicReading(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Vantel::Orbel::CTime::getCurrentMicroSecond());
    }
}
BENCHMARK(monotonicReading);

}  // namespace
