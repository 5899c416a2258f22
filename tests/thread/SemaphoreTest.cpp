#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "Vantel/Orbel/CSemaphore.h"
#include "Vantel/Orbel/SpinSem.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Orbel;
using OrbelTest::waitFor;

namespace {

using Clock = std::chrono::steady_clock;

TEST(CSemaphoreTest, ResultsAreCountsOnlyWhereTold) {
    CSemaphore sem(0);
    EXPECT_EQ(sem.post(5), 1) << "the argument is no number of units";
    EXPECT_EQ(sem.post(0), 2);
    EXPECT_EQ(sem.post(-1), 3);
    EXPECT_EQ(sem.pendUs(1000, false), 2);
    EXPECT_EQ(sem.pend(), 1);
    sem.post(0);
    sem.post(0);
    EXPECT_EQ(sem.tryPend(), 0) << "0, not the 2 that are left";
    EXPECT_EQ(sem.pend(0), 1);
    sem.post(0);
    EXPECT_EQ(sem.pendUs(1000, true), 0) << "swallows all";
    EXPECT_EQ(sem.tryPend(), -1);
    EXPECT_EQ(sem.pend(0), -1);
    sem.post(0);
    sem.clear();
    EXPECT_EQ(sem.tryPend(), -1);
}

TEST(CSemaphoreTest, TimedWaitsLastAtLeastTheirTime) {
    CSemaphore sem(0);
    auto start = Clock::now();
    EXPECT_EQ(sem.pend(1020), -1);  // seconds and the rest
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1020));
    start = Clock::now();
    EXPECT_EQ(sem.pendUs(20000, true), -1);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(20));
}

/// Beyond 4.29 seconds a 32-bit product of nanoseconds would wrap to a short wait.
TEST(CSemaphoreTest, LongMicrosecondWaitDoesNotWrap) {
    CSemaphore sem(0);
    std::thread poster([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        sem.post(0);
    });
    EXPECT_EQ(sem.pendUs(4294968, false), 0);  // wraps to 0.7 ms
    poster.join();
}

TEST(CSemaphoreTest, NothingIsLostBetweenThreads) {
    constexpr int kUnits = 20000;
    CSemaphore sem(0);
    std::atomic<int> taken{0};
    const auto consume = [&] {
        while (taken < 2 * kUnits) {
            if (sem.pend(5) >= 0) {
                ++taken;
            }
        }
    };
    const auto produce = [&] {
        for (int i = 0; i < kUnits; ++i) {
            ASSERT_GT(sem.post(1), 0);
        }
    };
    std::thread threads[] = {std::thread(consume), std::thread(consume), std::thread(produce),
                             std::thread(produce)};
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(taken, 2 * kUnits);
    EXPECT_EQ(sem.tryPend(), -1);
}

TEST(CSemaphoreDeathTest, NegativeStart) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(CSemaphore(-1), "initialCount >= 0");
}

TEST(SpinSemTest, CountsWithoutSleeping) {
    SpinSem sem(3, 10);
    EXPECT_EQ(sem.tryWaitMany(2), 2);
    EXPECT_EQ(sem.tryWaitMany(0), 0);
    EXPECT_EQ(sem.waitMany(0, -1), 0);
    EXPECT_TRUE(sem.tryWait());
    EXPECT_FALSE(sem.tryWait());
    EXPECT_FALSE(sem.wait(0));
    EXPECT_EQ(sem.waitMany(4, 0), 0);
    sem.post(2);  // only if both waits took themselves out of the count again are two left
    EXPECT_EQ(sem.waitMany(4, 0), 2);
    sem.post(1);
    EXPECT_EQ(sem.waitMany(1, -1), 1);
}

TEST(SpinSemTest, TimedWaitLastsAtLeastItsTime) {
    SpinSem sem(0, 10);
    const auto start = Clock::now();
    EXPECT_FALSE(sem.wait(20000));
    EXPECT_EQ(sem.waitMany(3, 20000), 0);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(40));
    sem.post(1);
    EXPECT_TRUE(sem.tryWait()) << "a sleeper stayed registered after its time-out";
}

TEST(SpinSemTest, PostWakesAsManyAsSleepAndKeepsTheRest) {
    SpinSem sem(0, 0);
    std::atomic<int> got{0};
    std::thread sleeper([&] { got = sem.waitMany(1, -1); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    sem.post(3);
    sleeper.join();
    EXPECT_EQ(got, 1);
    EXPECT_EQ(sem.tryWaitMany(10), 2);

    std::thread many([&] { got = sem.waitMany(4, -1); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(got, 1) << "returned without a unit";
    sem.post(9);
    many.join();
    EXPECT_GE(got, 1);
    EXPECT_LE(got, 4);
    EXPECT_EQ(sem.tryWaitMany(10), 9 - got);
}

/// Time-outs of the order of the posts' distance, so that many sleepers time out at the moment in
/// which a post counts them as woken.
TEST(SpinSemTest, NothingIsLostWhenTimeOutsMeetPosts) {
    constexpr int kUnits = 20000;
    SpinSem sem(0, 2);
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            for (long timeoutUs = 1; taken < kUnits; timeoutUs = timeoutUs % 60 + 1) {
                taken += timeoutUs % 2 == 0 ? sem.waitMany(3, timeoutUs)
                                            : static_cast<int>(sem.wait(timeoutUs));
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < kUnits; i += 4) {
            sem.post(1);
            sem.post(3);
            std::this_thread::sleep_for(std::chrono::microseconds(i % 40));
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(taken, kUnits);
    EXPECT_EQ(sem.tryWaitMany(1), 0);
    sem.post(1);  // no wake-up may be owed to somebody who left
    EXPECT_TRUE(sem.tryWait());
    EXPECT_FALSE(sem.wait(1000)) << "a wake-up without its unit";
}

}  // namespace
