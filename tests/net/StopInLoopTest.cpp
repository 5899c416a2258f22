#include "net/StopInLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/net/LoopSupport.h"
#include "tests/support/WaitFor.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

TEST(StopInLoopTest, RunsInTheLoopThreadOrSaysThatTheLoopDoesNotRun) {
    EventLoop loop;
    int ran = 0;
    EXPECT_TRUE(StopInLoop::runAndWait(loop, [&ran] { ++ran; })) << "in its thread, at once";
    EXPECT_EQ(ran, 1);
    std::thread([&] { EXPECT_FALSE(StopInLoop::runAndWait(loop, [&ran] { ++ran; })); }).join();

    std::thread other([&] {
        EXPECT_TRUE(waitFor([&] { return loop.isRunning(); }));
        EXPECT_TRUE(waitFor([&] {
            return StopInLoop::runAndWait(loop, [&] { ran += loop.isInLoopThread() ? 1 : 100; });
        }));
        EXPECT_THROW(StopInLoop::runAndWait(loop, [] { throw std::runtime_error("told"); }),
                     std::runtime_error);
        loop.quit();
    });
    loop.loop();
    other.join();
    EXPECT_EQ(ran, 2);
}

TEST(StopInLoopTest, StandsInLineWithTheTasksBeforeIt) {
    EventLoop loop;
    std::string order;
    loop.queueInLoop([&] { order += 'a'; });
    StopInLoop::queue(loop, [&] { order += 'b'; });
    loop.queueInLoop([&] {
        order += 'c';
        loop.quit();
        loop.queueInLoop([&] { order += 'X'; });
        StopInLoop::queue(loop, [&] {
            order += 'd';
            StopInLoop::queue(loop, [&] { order += 'e'; });
        });
    });
    loop.loop();
    EXPECT_EQ(order, "abcde") << "the end of the loop runs clean-up, and only that";
    EXPECT_EQ(loop.getPendingTaskCount(), 1u);
}

TEST(StopInLoopTest, TheDestructorOfTheLoopRunsWhatIsLeft) {
    std::string order;
    std::unique_ptr<EventSource> source;
    {
        EventLoop loop;
        source = std::make_unique<EventSource>(loop);
        source->channel.enableReading();
        std::thread([&] {
            StopInLoop::queue(loop, [&] {
                source.reset();
                order += 'a';
                StopInLoop::queue(loop, [&] { order += 'b'; });
                throw std::runtime_error("must not leave the destructor");
            });
        }).join();
    }
    EXPECT_EQ(order, "ab");
}

TEST(StopInLoopTest, ARaceWithTheEndOfTheLoopIsDecidedOneWayOrTheOther) {
    int taken = 0;
    for (int i = 0; i < 300; ++i) {
        EventLoop loop;
        std::atomic<bool> started{false};
        loop.queueInLoop([&started] { started = true; });
        std::atomic<int> ran{0};
        std::thread quitter([&] {
            waitFor([&] { return started.load(); });
            loop.quit();
        });
        std::thread stopper([&] {
            waitFor([&] { return started.load(); });
            const bool done = StopInLoop::runAndWait(loop, [&ran] { ++ran; });
            EXPECT_EQ(ran, done ? 1 : 0);
            taken += done ? 1 : 0;
        });
        loop.loop();
        quitter.join();
        stopper.join();
    }
    EXPECT_GT(taken, 0);
}

}  // namespace
