#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "Vantel/Orbel/CTime.h"
#include "ipc/SharedMemPool.h"
#include "tests/support/IpcCleanup.h"

namespace {

using Vantel::Orbel::BlockHeader;
using Vantel::Orbel::SharedMemPool;

struct BenchPool {
    explicit BenchPool(unsigned int blockCount)
        : pool(0, cleanup.pool("orbel_bench"), 4096, 64, blockCount) {
        attached = pool.init(nullptr);
    }

    OrbelTest::IpcCleanup cleanup;
    SharedMemPool pool;
    bool attached = false;
};

/// One block taken and given back in a pool of 64, `range(0)` of which are held in a row: those
/// are walked over once in a round.
void takeAndGive(benchmark::State& state) {
    BenchPool bench(64);
    std::vector<BlockHeader*> held;
    for (long i = 0; i < state.range(0); ++i) {
        held.push_back(bench.pool.allocateBlock(1, 1, 1, 1));
    }
    for (auto _ : state) {
        BlockHeader* block = bench.pool.allocateBlock(1, 1, 1, 1);
        if (block == nullptr ||
            !bench.pool.releaseBlock(block, block->status.stateWord().sequence)) {
            state.SkipWithError("no block");
            break;
        }
    }
}
BENCHMARK(takeAndGive)->Arg(0)->Arg(32)->Arg(63);

/// Two threads on one pool: what the hint and the neighbouring headers cost.
void takeAndGiveTogether(benchmark::State& state) {
    static std::unique_ptr<BenchPool> bench;
    if (state.thread_index() == 0) {
        bench = std::make_unique<BenchPool>(64);
    }
    for (auto _ : state) {
        BlockHeader* block = bench->pool.allocateBlock(1, 1, 1, 1);
        if (block == nullptr || !bench->pool.releaseBlock(block)) {
            state.SkipWithError("no block");
            break;
        }
    }
    if (state.thread_index() == 0) {
        bench.reset();
    }
}
BENCHMARK(takeAndGiveTogether)->Threads(2)->UseRealTime();

/// The part of an allocation that is the clock's.
void readClock(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Vantel::Orbel::CTime::getCurrentMicroSecond());
    }
}
BENCHMARK(readClock);

/// One clean-up pass over 1024 blocks of which none is out.
void cleanupPass(benchmark::State& state) {
    BenchPool bench(1024);
    for (auto _ : state) {
        bench.pool.checkAndCleanup(5000000);
    }
}
BENCHMARK(cleanupPass);

}  // namespace
