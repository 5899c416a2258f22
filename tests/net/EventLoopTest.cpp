#include "Vantel/Orbel/EventLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "frame/base/ScopeExit.h"
#include "tests/net/LoopSupport.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Runs all that is queued, and returns.
void turnOnce(EventLoop& loop) {
    loop.queueInLoop([&loop] { loop.quit(); }, static_cast<TaskPriority>(-1000));
    loop.loop();
}

TEST(EventLoopTest, FirstThenPriorityThenTheOrderOfQueueing) {
    EventLoop loop;
    std::string order;
    const auto mark = [&order](char name) { return [&order, name] { order += name; }; };
    loop.queueInLoop(mark('l'), kPriorityLow);
    loop.queueInLoop(mark('n'));
    loop.queueInLoop(mark('h'), kPriorityHigh);
    loop.queueInLoopFirst(mark('f'));
    loop.queueBatchInLoop({mark('o'), mark('p')});
    loop.queueInLoop(mark('X'), static_cast<TaskPriority>(99));
    loop.queueInLoop(mark('i'), kPriorityHigh);
    loop.queueInLoopFirst(mark('g'));
    loop.queueInLoop(mark('m'), kPriorityLow);
    EXPECT_EQ(loop.getPendingTaskCount(), 10u);
    turnOnce(loop);
    EXPECT_EQ(order, "fgXhinoplm");
}

TEST(EventLoopTest, InTheLoopThreadRunIsAtOnceAndQueueIsTheNextIteration) {
    EventLoop loop;
    std::string order;
    loop.queueInLoop([&] {
        loop.queueInLoop([&] { order += 'q'; });
        loop.runInLoop([&] { order += 'r'; });
        loop.runInLoopFirst([&] { order += 's'; });
        loop.runBatchInLoop({[&] { order += 't'; }, [&] { order += 'u'; }});
        loop.runInLoopWhen([&] { order += 'v'; }, [] { return true; });
        loop.runInLoopWhen([&] { order += 'W'; }, [] { return false; });
        order += '.';
    });
    loop.queueInLoop([&] {
        order += '2';
        loop.queueInLoop([&] { loop.quit(); });
    });
    loop.loop();
    EXPECT_EQ(order, "rstuv.2q");
    EXPECT_THROW(loop.runInLoop([] { throw std::runtime_error("direct"); }), std::runtime_error);
    EXPECT_THROW(loop.runInLoop({}), std::bad_function_call);
}

TEST(EventLoopTest, AConditionIsAskedOnceAtTheTasksTurn) {
    EventLoop loop;
    bool open = false;
    int asked = 0;
    int ran = 0;
    for (int i = 0; i < 2; ++i) {
        loop.queueInLoopWhen([&] { ++ran; }, [&] { return ++asked, open; });
        loop.queueInLoop([&] { open = true; });
    }
    turnOnce(loop);
    turnOnce(loop);
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(ran, 1);
}

TEST(EventLoopTest, AChainOfTasksDoesNotWaitForThePollCap) {
    EventLoop loop;
    int left = 20;
    std::function<void()> next = [&] {
        // Queued by the destructor of what a task captured, too.
        auto onDestroy = std::make_shared<ScopeExit<std::function<void()>>>(
            [&] { loop.queueInLoop(--left > 0 ? next : [&loop] { loop.quit(); }); });
        loop.queueInLoop([onDestroy] {});
    };
    loop.queueInLoop(next);
    const auto begin = Clock::now();
    loop.loop();
    EXPECT_LT(Clock::now() - begin, milliseconds(10000)) << "twenty waits of up to a second each";
}

TEST(EventLoopTest, WhatATaskThrowsIsToldAndNotCountedAsExecuted) {
    const LogCapture log;
    EventLoop loop;
    int ran = 0;
    loop.queueInLoop([] { throw std::runtime_error("told"); });
    loop.queueInLoop([] { throw 1; });
    loop.queueInLoop({});
    loop.queueInLoop([&ran] { ++ran; });
    turnOnce(loop);
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(log.count("]Exception in EventLoop task: told\n"), 1);
    EXPECT_EQ(log.count("]Unknown exception in EventLoop task\n"), 1);
    EXPECT_EQ(loop.getTotalTasksQueued(), 5u);
    EXPECT_EQ(loop.getTotalTasksExecuted(), 2u);
    loop.resetTaskStatistics();
    EXPECT_EQ(loop.getTotalTasksQueued(), 0u);
    turnOnce(loop);
    EXPECT_EQ(loop.getTotalTasksExecuted(), 1u);
}

TEST(EventLoopTest, AQuitBeforeTheLoopIsForgottenAndTasksOutliveTheLoop) {
    EventLoop loop;
    int ran = 0;
    loop.quit();
    loop.queueInLoop([&] {
        ++ran;
        loop.quit();
        loop.queueInLoop([&ran] { ++ran; });
    });
    loop.queueInLoop([&ran] { ++ran; });
    loop.loop();
    EXPECT_EQ(ran, 2) << "the batch that quits runs whole, and what it queued waits";
    EXPECT_TRUE(loop.isQuitting());
    turnOnce(loop);
    EXPECT_EQ(ran, 3);
}

TEST(EventLoopTest, OnceModeEndsWithTheFirstEvents) {
    EventLoop loop;
    loop.setMode(kLoopOnce);
    std::atomic<bool> ran{false};
    std::thread other([&] {
        EXPECT_TRUE(waitFor([&] { return loop.isRunning(); }));
        loop.queueInLoop([&ran] { ran = true; });
    });
    loop.loop();
    EXPECT_TRUE(ran);
    EXPECT_FALSE(loop.isQuitting());
    other.join();
}

TEST(EventLoopTest, TimedModeEndsAtItsTimeAndNotBefore) {
    EventLoop loop;
    loop.setMode(kLoopTimed);
    EventSource ready(loop, 1);
    ready.channel.setReadCallback([] { ADD_FAILURE() << "polled without time for it"; });
    ready.channel.enableReading();
    for (const int64_t none : {0, -5}) {
        loop.setTimeout(none);
        loop.loop();
    }
    ready.takeOut();
    loop.setTimeout(1100);
    int64_t running = 0;
    loop.addTimer([&] { running = loop.getRunningTime(); }, 1010, false);
    const auto begin = Clock::now();
    loop.loop();
    EXPECT_GE(Clock::now() - begin, milliseconds(1100));
    EXPECT_GE(running, 1010);
    EXPECT_EQ(loop.getRunningTime(), 0);
}

TEST(EventLoopTest, TasksOfManyThreadsAllRunInTheOrderOfEach) {
    EventLoop loop;
    constexpr int kThreads = 4;
    constexpr int kTasks = 5000;
    int seen[kThreads] = {};
    int all = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kTasks; ++i) {
                loop.queueInLoop([&, t, i] {
                    EXPECT_EQ(seen[t]++, i);
                    if (++all == kThreads * kTasks) {
                        loop.quit();
                    }
                });
            }
        });
    }
    loop.loop();
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(loop.getTotalTasksExecuted(), uint64_t{kThreads} * kTasks);
}

TEST(EventLoopTest, ResultsAndExceptionsReachTheWaiter) {
    auto loop = std::make_unique<EventLoop>();
    std::thread other([&loop] {
        EXPECT_TRUE(loop->runInLoopWithResult<bool>([&] { return loop->isInLoopThread(); }).get());
        loop->runInLoopWithResult<void>([] {}).get();
        auto failing =
            loop->runInLoopWithResult<int>([]() -> int { throw std::runtime_error("told"); });
        EXPECT_THROW(failing.get(), std::runtime_error);
        loop->quit();
    });
    loop->loop();
    other.join();

    std::future<int> orphan;
    std::thread([&] { orphan = loop->runInLoopWithResult<int>([] { return 1; }); }).join();
    loop.reset();
    EXPECT_THROW(orphan.get(), std::future_error) << "the loop died with the task";
}

TEST(EventLoopTest, TimerCallsOfAnotherThreadWaitForTheLoop) {
    EventLoop loop;
    std::atomic<int> step{0};
    std::thread other([&] {
        const unsigned long id = loop.addTimer([] {}, 1000000, false);
        step = 1;
        EXPECT_TRUE(loop.resetTimer(id));
        EXPECT_TRUE(loop.modifyTimer(id, 2000000, true));
        loop.cancelTimer(id);
        EXPECT_FALSE(loop.resetTimer(id));
        loop.runInLoopAfter([&loop] { loop.quit(); }, 1);
    });
    EXPECT_TRUE(waitFor([&] { return loop.getPendingTaskCount() == 1; }));
    EXPECT_EQ(step, 0);
    loop.loop();
    other.join();
    EXPECT_EQ(step, 1);
}

TEST(EventLoopTest, WhatTasksAndTimersCapturedMayUseTheDyingLoop) {
    using Last = ScopeExit<std::function<void()>>;  // runs as what held it is destroyed
    int calls = 0;
    std::unique_ptr<EventSource> source;
    {
        EventLoop loop;
        source = std::make_unique<EventSource>(loop);
        source->channel.enableReading();
        const auto lastUser = std::make_shared<Last>([&] {
            source.reset();
            loop.cancelTimer(1);
            loop.addTimer([] {}, 1, false);
            loop.queueInLoop([&calls] { ++calls; });
        });
        loop.queueInLoop([lastUser] {});
        const auto timerUser =
            std::make_shared<Last>([&] { loop.queueInLoop([&calls] { ++calls; }); });
        loop.addTimer([timerUser] {}, 1000, true);
    }
    EXPECT_EQ(calls, 0) << "queued tasks die unrun";
}

TEST(EventLoopTest, AnExceptionOfAChannelLeavesTheLoopAndItsChannelsRemovable) {
    static EventLoop& loop = *new EventLoop;  // can neither loop again nor be destroyed after this
    EventSource source(loop, 1);
    source.channel.setReadCallback([] { throw std::runtime_error("out"); });
    source.channel.enableReading();
    EXPECT_THROW(loop.loop(), std::runtime_error);
    EXPECT_TRUE(loop.isRunning());
    EXPECT_TRUE(source.takeOut());
}

TEST(EventLoopDeathTest, BreachesOfTheRulesEndTheProcess) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EventLoop loop;
    const auto inLoop = [&loop](std::function<void()> breach) {
        loop.queueInLoop([breach] { breach(); });
        loop.loop();
    };
    EXPECT_DEATH(inLoop([&] { loop.loop(); }), "!mInternal->mLooping.load\\(\\)");
    EXPECT_DEATH(inLoop([&] { loop.setMode(kLoopOnce); }), "!mInternal->mLooping.load\\(\\)");
    EXPECT_DEATH(inLoop([&] { loop.setTimeout(1); }), "!mInternal->mLooping.load\\(\\)");
    EXPECT_DEATH(inLoop([&] { loop.~EventLoop(); }), "!mInternal->mLooping.load\\(\\)");
    EXPECT_DEATH(std::thread([&] { loop.loop(); }).join(), "isInLoopThread\\(\\)");
}

}  // namespace
