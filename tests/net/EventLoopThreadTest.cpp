#include "Vantel/Orbel/EventLoopThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/EventLoopGroup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Orbel;
using OrbelTest::waitFor;

namespace {

/// The kernel's names of this process's threads.
std::multiset<std::string> threadNames() {
    std::multiset<std::string> names;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        if (std::getline(std::ifstream(task.path() / "comm"), name)) {  // else it has just ended
            names.insert(name);
        }
    }
    return names;
}

/// Stopped at once, stopped with work to do, stopped while it ends by itself, not stopped at all.
TEST(EventLoopThreadTest, AnyEndCanBeFollowedByANewStart) {
    const long before = OrbelTest::openDescriptors();
    EventLoopThread thread({}, "");
    for (int i = 0; i < 300; ++i) {
        EventLoop* const loop = thread.startLoop();
        ASSERT_NE(loop, nullptr);
        if (i % 4 == 1) {
            loop->queueInLoop([] {});
        } else if (i % 4 > 1) {
            loop->runInLoop([loop] { loop->quit(); });
        }
        if (i % 4 == 3) {
            ASSERT_TRUE(waitFor([&] { return !thread.isRunning(); }));
        }
        thread.stop();
        ASSERT_FALSE(thread.isRunning());
        ASSERT_EQ(thread.getLoop(), nullptr);
    }
    EXPECT_TRUE(waitFor([&] { return OrbelTest::openDescriptors() == before; }));
}

TEST(EventLoopThreadTest, TheInitCallbackRunsInTheThreadAndMayThrow) {
    const OrbelTest::LogCapture log;
    std::atomic<bool> inThread{false};
    EventLoopThread good([&](EventLoop* loop) { inThread = loop->isInLoopThread(); }, "good");
    EventLoopThread bad([](EventLoop*) { throw std::runtime_error("told"); }, "bad");
    EventLoopThread worse([](EventLoop*) { throw 1; }, "worse");
    for (EventLoopThread* thread : {&good, &bad, &worse}) {
        EventLoop* const loop = thread->startLoop();
        ASSERT_NE(loop, nullptr);
        EXPECT_EQ(loop->runInLoopWithResult<int>([] { return 7; }).get(), 7);
    }
    EXPECT_TRUE(inThread);
    EXPECT_EQ(threadNames().count("worse"), 1u);
    EXPECT_EQ(log.count("] EventLoopThread[bad] started in thread "), 1);
    EXPECT_EQ(log.count("]EventLoopThread[bad] init callback exception: told\n"), 1);
}

TEST(EventLoopThreadTest, StopFromItsOwnLoopEndsTheThreadWithoutWaiting) {
    const OrbelTest::LogCapture log;
    EventLoopThread thread({}, "own");
    std::atomic<bool> stillRunning{false};
    thread.startLoop()->runInLoop([&] {
        thread.stop();
        stillRunning = thread.isRunning();
    });
    EXPECT_TRUE(waitFor([&] { return !thread.isRunning(); }));
    EXPECT_TRUE(stillRunning);
    EXPECT_EQ(log.count("] EventLoopThread[own] stop called from its own loop thread; quit "
                        "requested only\n"),
              1);
    EXPECT_EQ(log.count("] EventLoopThread[own] stopped\n"), 1);
    EXPECT_NE(thread.startLoop(), nullptr);
}

TEST(EventLoopThreadTest, AnOwnerThatDiesInItsOwnLoopIsNoDeadlock) {
    auto thread = std::make_unique<EventLoopThread>(ThreadInitCallback(), "suicide");
    std::atomic<bool> gone{false};
    EventLoop* const loop = thread->startLoop();
    loop->runInLoop([&] {
        thread.reset();
        gone = true;
    });
    EXPECT_TRUE(waitFor([&] { return gone && threadNames().count("suicide") == 0; }));
}

TEST(EventLoopThreadTest, AThreadThatCannotStartGivesNullEachTime) {
    EventLoopThread thread({}, "never");
    thread.setSchedulePolicy(true, 1000, -1);  // far below the lowest priority: refused
    EXPECT_EQ(thread.startLoop(), nullptr);
    EXPECT_EQ(thread.startLoop(), nullptr);
    EXPECT_FALSE(thread.isRunning());
    thread.stop();
    thread.setSchedulePolicy(false, 64, 0);
    EXPECT_NE(thread.startLoop(), nullptr);
}

TEST(EventLoopThreadDeathTest, SetUpOnlyWhileNotRunning) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EventLoopThread thread({}, "running");
    const auto running = [&thread] { return thread.startLoop(), &thread; };
    EXPECT_DEATH(running()->startLoop(), "!mInternal->mRunning.load\\(\\)");
    EXPECT_DEATH(running()->setSchedulePolicy(false, 64, -1), "!mInternal->mRunning.load\\(\\)");
    EventLoop loop;
    EventLoopGroup group(&loop, "started");
    const auto started = [&group] { return group.start(), &group; };
    EXPECT_DEATH(started()->setThreadNum(1), "!mInternal->mStarted");
    EXPECT_DEATH(started()->setThreadInitCallback({}), "!mInternal->mStarted");
}

TEST(EventLoopGroupTest, WithoutThreadsTheBaseLoopIsTheOnlyOne) {
    EventLoop base;
    EventLoopGroup group(&base, "alone");
    const size_t threads = threadNames().size();
    const std::vector<EventLoop*> onlyBase = {&base};
    std::vector<EventLoop*> initialised;
    group.setThreadInitCallback([&](EventLoop* loop) { initialised.push_back(loop); });
    EXPECT_TRUE(group.start() && group.start());
    EXPECT_EQ(initialised, onlyBase) << "a second start does nothing";
    EXPECT_EQ(threadNames().size(), threads);
    EXPECT_EQ(group.getNextLoop(), &base);
    EXPECT_EQ(group.getLoopForHash(12345), &base);
    EXPECT_EQ(group.getAllLoops(), onlyBase);
}

TEST(EventLoopGroupTest, TheBaseLoopCallbackRunsInTheBaseLoopAndItsExceptionComesBack) {
    EventLoopThread baseThread({}, "base");
    EventLoop* const base = baseThread.startLoop();
    ASSERT_TRUE(waitFor([&] { return base->isRunning(); }));
    EventLoopGroup group(base, "onBase");
    bool inBase = false;
    group.setThreadInitCallback([&](EventLoop* loop) { inBase = loop->isInLoopThread(); });
    EXPECT_TRUE(group.start());
    EXPECT_TRUE(inBase);
    group.stop();
    group.setThreadInitCallback([](EventLoop*) { throw std::runtime_error("told"); });
    EXPECT_THROW(group.start(), std::runtime_error);
    EXPECT_TRUE(group.started());
}

TEST(EventLoopGroupTest, LoopsInTurnByHashAndAfterARestart) {
    EventLoop base;
    EventLoopGroup group(&base, "net");
    group.setThreadNum(3);
    std::atomic<int> initialised{0};
    group.setThreadInitCallback([&](EventLoop* loop) {
        EXPECT_NE(loop, &base);
        ++initialised;
    });
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(group.start());
        const std::vector<EventLoop*> loops = group.getAllLoops();
        ASSERT_EQ(loops.size(), 3u);
        for (size_t i = 0; i < 7; ++i) {
            EXPECT_EQ(group.getNextLoop(), loops[i % 3]);
            EXPECT_EQ(group.getLoopForHash(i), loops[i % 3]);
        }
        EXPECT_TRUE(waitFor([&] { return initialised == 3 * round; }));
        for (const char* name : {"net-0", "net-1", "net-2"}) {
            EXPECT_TRUE(waitFor([&] { return threadNames().count(name) == 1; })) << name;
        }
        group.stop();
        EXPECT_EQ(group.getNextLoop(), &base);
        EXPECT_EQ(threadNames().count("net-0"), 0u);
    }
}

TEST(EventLoopGroupTest, StopFromOneOfItsOwnLoopsIsNoDeadlock) {
    EventLoop base;
    EventLoopGroup group(&base, "ring");
    group.setThreadNum(2);
    ASSERT_TRUE(group.start());
    std::atomic<bool> stopped{false};
    group.getNextLoop()->runInLoop([&] {
        group.stop();
        stopped = true;
    });
    EXPECT_TRUE(waitFor([&] {
        return stopped && threadNames().count("ring-0") + threadNames().count("ring-1") == 0;
    }));
    EXPECT_FALSE(group.started());
}

}  // namespace
