// Values a second through the index queue and its peers, with 1, 2 and 4 threads on each side.

#include <benchmark/benchmark.h>
#include <tbb/concurrent_queue.h>

#include <atomic>
#include <boost/lockfree/queue.hpp>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "Vantel/Orbel/MPMCIDXQueue.h"

namespace {

constexpr int kCapacity = 1024;

/// The attempts of the queues that never sleep: who finds it full or empty lets others run, since
/// there may be more threads than processors.
template <class Attempt>
void untilDone(Attempt&& attempt) {
    while (!attempt()) {
        std::this_thread::yield();
    }
}

struct Spinning {
    Vantel::Orbel::MPMCIDXQueue queue{kCapacity, false};
    void push(int value) {
        untilDone([&] { return queue.tryPush(value, 10); });
    }
    void pop(int& value) {
        untilDone([&] { return queue.tryPop(value, 10); });
    }
};

struct Blocking {
    Vantel::Orbel::MPMCIDXQueue queue{kCapacity, true};
    void push(int value) { queue.push(value); }
    void pop(int& value) {
        while (!queue.popWithTimeout(value, 10)) {
        }
    }
};

struct BoostLockfree {
    boost::lockfree::queue<int, boost::lockfree::capacity<kCapacity>> queue;
    void push(int value) {
        untilDone([&] { return queue.push(value); });
    }
    void pop(int& value) {
        untilDone([&] { return queue.pop(value); });
    }
};

struct TbbBounded {
    tbb::concurrent_bounded_queue<int> queue;
    TbbBounded() { queue.set_capacity(kCapacity); }
    void push(int value) { queue.push(value); }
    void pop(int& value) { queue.pop(value); }
};

struct MutexCondition {
    std::mutex mutex;
    std::condition_variable filled;
    std::condition_variable drained;
    std::deque<int> queue;
    void push(int value) {
        std::unique_lock<std::mutex> lock(mutex);
        drained.wait(lock, [&] { return queue.size() < kCapacity; });
        queue.push_back(value);
        filled.notify_one();
    }
    void pop(int& value) {
        std::unique_lock<std::mutex> lock(mutex);
        filled.wait(lock, [&] { return !queue.empty(); });
        value = queue.front();
        queue.pop_front();
        drained.notify_one();
    }
};

/// range(0) producers and as many consumers; the sum shows that each value came through once.
template <class Queue>
void passValues(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    constexpr int kValues = 400000;
    for (auto _ : state) {
        Queue queue;
        std::atomic<long> sum{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < side; ++i) {
            threads.emplace_back([&] {
                for (int value = 0; value < kValues / side; ++value) {
                    queue.push(value);
                }
            });
            threads.emplace_back([&] {
                long own = 0;
                for (int count = 0; count < kValues / side; ++count) {
                    int value = 0;
                    queue.pop(value);
                    own += value;
                }
                sum += own;
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        const long each = kValues / side;
        if (sum != side * (each * (each - 1) / 2)) {
            state.SkipWithError("values were lost or came twice");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * kValues);
}

/// A value to a sleeping thread and its answer: two wake-ups a round.
template <class Queue>
void wakeUp(benchmark::State& state) {
    Queue there;
    Queue back;
    std::thread echo([&] {
        for (int value = 0; value >= 0;) {
            there.pop(value);
            back.push(value);
        }
    });
    int sent = 0;
    int answer = 0;
    for (auto _ : state) {
        there.push(++sent);
        back.pop(answer);
        if (answer != sent) {
            state.SkipWithError("another value came back");
            break;
        }
    }
    there.push(-1);
    echo.join();
}
BENCHMARK(wakeUp<Blocking>)->UseRealTime();
BENCHMARK(wakeUp<MutexCondition>)->UseRealTime();
BENCHMARK(wakeUp<TbbBounded>)->UseRealTime();

}  // namespace

#define QUEUE_BENCH(Queue)       \
    BENCHMARK(passValues<Queue>) \
        ->Arg(1)                 \
        ->Arg(2)                 \
        ->Arg(4)                 \
        ->UseRealTime()          \
        ->Unit(benchmark::kMillisecond)
QUEUE_BENCH(Spinning);
QUEUE_BENCH(Blocking);
QUEUE_BENCH(BoostLockfree);
QUEUE_BENCH(TbbBounded);
QUEUE_BENCH(MutexCondition);
