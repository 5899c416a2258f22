// From postTask() to the first instruction of run(): to an idle pool, where a sleeping thread has
// to be woken, and as a throughput with the queue filled ahead of the workers.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "Vantel/Orbel/IThreadPool.h"

using namespace Vantel::Orbel;

namespace {

using Clock = std::chrono::steady_clock;

struct Probe {
    std::atomic<int64_t> ranAtNs{0};
    std::atomic<int> ran{0};
};

int64_t nowNs() {
    return Clock::now().time_since_epoch().count();
}

class ProbeTask : public IThreadTask {
public:
    explicit ProbeTask(Probe& probe) : mProbe(probe) {}
    void run() override {
        mProbe.ranAtNs.store(nowNs(), std::memory_order_relaxed);
        mProbe.ran.fetch_add(1, std::memory_order_release);
    }

private:
    Probe& mProbe;
};

double at(std::vector<int64_t>& sorted, double part) {
    return static_cast<double>(sorted[static_cast<size_t>(part * (sorted.size() - 1.0))]);
}

void postToRunOfAnIdlePool(benchmark::State& state) {
    IThreadPool* pool = IThreadPool::create("bench");
    pool->initial(static_cast<int>(state.range(0)), 1024, 0, -1);
    Probe probe;
    std::vector<int64_t> times;
    int posted = 0;
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));  // let it fall asleep
        const int64_t start = nowNs();
        pool->postTask(new ProbeTask(probe));
        ++posted;
        while (probe.ran.load(std::memory_order_acquire) != posted) {
            std::this_thread::yield();
        }
        times.push_back(probe.ranAtNs - start);
        state.SetIterationTime(static_cast<double>(times.back()) * 1e-9);
    }
    IThreadPool::destroy(pool);
    std::sort(times.begin(), times.end());
    state.counters["p50_ns"] = at(times, 0.5);
    state.counters["p99_ns"] = at(times, 0.99);
}
BENCHMARK(postToRunOfAnIdlePool)->Arg(1)->Arg(4)->UseManualTime()->Iterations(5000);

void postsAndRunsPerTask(benchmark::State& state) {
    constexpr int kBatch = 10000;
    IThreadPool* pool = IThreadPool::create("bench");
    pool->initial(static_cast<int>(state.range(0)), kBatch, 0, -1);
    Probe probe;
    int posted = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            if (!pool->postTask(new ProbeTask(probe))) {
                state.SkipWithError("queue full");
            }
        }
        posted += kBatch;
        while (probe.ran.load(std::memory_order_acquire) != posted) {
            std::this_thread::yield();
        }
    }
    IThreadPool::destroy(pool);
    state.SetItemsProcessed(posted);
}
BENCHMARK(postsAndRunsPerTask)->Arg(1)->Arg(2)->UseRealTime();

}  // namespace
