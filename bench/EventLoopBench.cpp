// What a task from another thread costs, beside the plainest thing that could do the job: a
// std::vector of std::function under a std::mutex, with one eventfd write per wake-up.

#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/EventLoopThread.h"
#include "frame/base/UniqueFd.h"

namespace {

using Vantel::Orbel::EventLoop;
using Vantel::Orbel::EventLoopThread;
using Vantel::Orbel::UniqueFd;
using Clock = std::chrono::steady_clock;

class PlainLoop {
public:
    PlainLoop() {
        epoll_event event{};
        event.events = EPOLLIN;
        epoll_ctl(mEpollFd.get(), EPOLL_CTL_ADD, mEventFd.get(), &event);
        mThread = std::thread([this] { run(); });
    }
    ~PlainLoop() {
        post([this] { mQuit = true; });
        mThread.join();
    }

    void post(std::function<void()> task) {
        bool wake = false;
        {
            const std::lock_guard<std::mutex> guard(mMutex);
            mTasks.push_back(std::move(task));
            wake = !mWakePending;
            mWakePending = true;
        }
        const uint64_t one = 1;
        if (wake && write(mEventFd.get(), &one, sizeof one) != sizeof one) {
            std::abort();
        }
    }

private:
    void run() {
        std::vector<std::function<void()>> tasks;
        while (!mQuit) {
            epoll_event event{};
            uint64_t count = 0;
            if (epoll_wait(mEpollFd.get(), &event, 1, 1000) != 1 ||
                read(mEventFd.get(), &count, sizeof count) != sizeof count) {
                continue;
            }
            {
                const std::lock_guard<std::mutex> guard(mMutex);
                tasks.swap(mTasks);
                mWakePending = false;
            }
            for (const auto& task : tasks) {
                task();
            }
            tasks.clear();
        }
    }

    UniqueFd mEpollFd{epoll_create1(EPOLL_CLOEXEC)};
    UniqueFd mEventFd{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::mutex mMutex;
    std::vector<std::function<void()>> mTasks;
    bool mWakePending = false;
    bool mQuit = false;
    std::thread mThread;
};

class OrbelLoop {
public:
    void post(std::function<void()> task) { mLoop->queueInLoop(std::move(task)); }

private:
    EventLoopThread mThread{{}, "bench"};
    EventLoop* mLoop = mThread.startLoop();
};

constexpr int kTasks = 100000;

/// Binds the calling thread, and those it starts, to one processor; the destructor frees it again.
/// Without this the scheduler's choice, the same core or two, decides the figures.
class Pinned {
public:
    explicit Pinned(int cpu) {
        sched_getaffinity(0, sizeof mBefore, &mBefore);
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(cpu, &set);
        sched_setaffinity(0, sizeof set, &set);  // refused where there is no such processor
    }
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;
    ~Pinned() { sched_setaffinity(0, sizeof mBefore, &mBefore); }

private:
    cpu_set_t mBefore;
};

constexpr int kPosterCpu = 0;
constexpr int kLoopCpu = 1;

template <class Loop>
std::unique_ptr<Loop> loopOnItsCpu() {
    const Pinned there(kLoopCpu);
    return std::make_unique<Loop>();
}

/// Nanoseconds for kTasks tasks of `producers` threads, from the first post to the last run; -1 if
/// a task got lost.
template <class Loop>
double postedTasksNs(Loop& loop, int producers) {
    int ran = 0;
    UniqueFd done(eventfd(0, EFD_CLOEXEC));
    const int perThread = kTasks / producers;
    const int total = perThread * producers;
    std::vector<std::thread> threads;
    const auto begin = Clock::now();
    for (int t = 0; t < producers; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < perThread; ++i) {
                loop.post([&ran, &done, total] {
                    const uint64_t one = 1;
                    if (++ran == total && write(done.get(), &one, sizeof one) != sizeof one) {
                        std::abort();
                    }
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    uint64_t count = 0;
    const bool whole = read(done.get(), &count, sizeof count) == sizeof count && ran == total;
    const std::chrono::duration<double, std::nano> spent = Clock::now() - begin;
    return whole ? spent.count() : -1;
}

/// Nanoseconds from the post of one task to a sleeping loop until it runs.
template <class Loop>
double oneTaskNs(Loop& loop) {
    UniqueFd done(eventfd(0, EFD_CLOEXEC));
    Clock::time_point ran;
    const auto begin = Clock::now();
    loop.post([&ran, &done] {
        ran = Clock::now();
        const uint64_t one = 1;
        if (write(done.get(), &one, sizeof one) != sizeof one) {
            std::abort();
        }
    });
    uint64_t count = 0;
    if (read(done.get(), &count, sizeof count) != sizeof count) {
        return -1;
    }
    return std::chrono::duration<double, std::nano>(ran - begin).count();
}

double median(std::vector<double>& values) {
    std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

/// One core for the loop, one for those who post. Both loops by turns, so that whatever else the
/// machine does hits both. The counters are medians; `speed` is how fast the loop is as a multiple
/// of the plain one.
template <class Measure>
void besidePlain(benchmark::State& state, Measure measure, double perRun) {
    const auto plain = loopOnItsCpu<PlainLoop>();
    const auto orbel = loopOnItsCpu<OrbelLoop>();
    const Pinned here(kPosterCpu);
    std::vector<double> plainNs;
    std::vector<double> orbelNs;
    for (auto _ : state) {
        plainNs.push_back(measure(*plain));
        orbelNs.push_back(measure(*orbel));
        if (plainNs.back() < 0 || orbelNs.back() < 0) {
            state.SkipWithError("lost a task");
            return;
        }
        state.SetIterationTime(orbelNs.back() / 1e9);
    }
    const double plainMedian = median(plainNs);
    const double orbelMedian = median(orbelNs);
    state.counters["plain_ns"] = plainMedian / perRun;
    state.counters["orbel_ns"] = orbelMedian / perRun;
    state.counters["speed"] = plainMedian / orbelMedian;
}

void postedTasks(benchmark::State& state) {
    const auto producers = static_cast<int>(state.range(0));
    besidePlain(
        state, [producers](auto& loop) { return postedTasksNs(loop, producers); }, kTasks);
}
BENCHMARK(postedTasks)->ArgName("producers")->Arg(1)->Arg(2)->Iterations(40)->UseManualTime();

void onePostedTask(benchmark::State& state) {
    besidePlain(
        state, [](auto& loop) { return oneTaskNs(loop); }, 1);
}
BENCHMARK(onePostedTask)->Iterations(5000)->UseManualTime();

/// A task queued and run by the loop thread itself: a loop turn's fixed price.
void turnOfTheLoop(benchmark::State& state) {
    EventLoop loop;
    int64_t left = 0;
    std::function<void()> again = [&] {
        loop.queueInLoop(--left > 0 ? again : [&loop] { loop.quit(); });
    };
    for (auto _ : state) {
        left = 1000;
        loop.queueInLoop(again);
        loop.loop();
        if (left != 0) {
            state.SkipWithError("lost a task");
        }
    }
    state.SetItemsProcessed(state.iterations() * 1001);
}
BENCHMARK(turnOfTheLoop);

}  // namespace
