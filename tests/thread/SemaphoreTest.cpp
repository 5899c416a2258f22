#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "Vantel/Orbel/CSemaphore.h"
#include "Vantel/Orbel/SpinSem.h"

using namespace Vantel::Orbel;
using std::chrono::milliseconds;

namespace {

/// How long `wait` takes.
template <class Wait>
std::chrono::steady_clock::duration lasts(Wait wait) {
    const auto start = std::chrono::steady_clock::now();
    wait();
    return std::chrono::steady_clock::now() - start;
}

TEST(CSemaphoreTest, ResultsAreCountsOnlyWhereTold) {
    CSemaphore sem(0);
    EXPECT_EQ(sem.post(5), 1) << "the argument is no number of units";
    EXPECT_EQ(sem.post(0), 2);
    EXPECT_EQ(sem.post(-1), 3);
    EXPECT_EQ(sem.pendUs(1000, false), 2);
    EXPECT_EQ(sem.pend(), 1);
    sem.post(0);
    EXPECT_EQ(sem.tryPend(), 0) << "0, not the 1 that is left";
    EXPECT_EQ(sem.pend(0), 0);
    sem.post(0);
    sem.post(0);
    EXPECT_EQ(sem.pendUs(1000, true), 0) << "swallows all";
    EXPECT_EQ(sem.tryPend(), -1);
    EXPECT_EQ(sem.pend(0), -1);
    sem.post(0);
    sem.clear();
    EXPECT_EQ(sem.tryPend(), -1);
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(CSemaphore(-1), "initialCount >= 0");
}

TEST(CSemaphoreTest, TimedWaitsLastAtLeastTheirTime) {
    CSemaphore sem(0);
    const auto seconds = lasts([&] { EXPECT_EQ(sem.pend(1020), -1); });
    EXPECT_GE(seconds, milliseconds(1020)) << "seconds and the rest";
    EXPECT_GE(lasts([&] { EXPECT_EQ(sem.pendUs(20000, true), -1); }), milliseconds(20));
    std::thread poster([&] {
        std::this_thread::sleep_for(milliseconds(30));
        sem.post(0);
    });
    EXPECT_EQ(sem.pendUs(4294968, false), 0) << "in 32 bits that many nanoseconds are 0.7 ms";
    poster.join();
}

TEST(CSemaphoreTest, NothingIsLostBetweenThreads) {
    constexpr int kUnits = 20000;
    CSemaphore sem(0);
    std::atomic<int> taken{0};
    const auto consume = [&] {
        while (taken < 2 * kUnits) {
            taken += sem.pend(5) >= 0 ? 1 : 0;
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

TEST(SpinSemTest, CountsAndTakesBackWhoWaitedInVain) {
    SpinSem sem(3, 10);
    EXPECT_EQ(sem.tryWaitMany(2), 2);
    EXPECT_EQ(sem.tryWaitMany(0), 0);
    EXPECT_EQ(sem.waitMany(0, -1), 0);
    EXPECT_TRUE(sem.tryWait());
    EXPECT_FALSE(sem.tryWait());
    EXPECT_FALSE(sem.wait(0));
    EXPECT_EQ(sem.waitMany(4, 0), 0);
    EXPECT_GE(lasts([&] { EXPECT_FALSE(sem.wait(20000)); }), milliseconds(20));
    EXPECT_GE(lasts([&] { EXPECT_EQ(sem.waitMany(3, 20000), 0); }), milliseconds(20));
    sem.post(2);  // only if all waits took themselves out of the count again are two left
    EXPECT_EQ(sem.waitMany(4, 0), 2);
    sem.post(1);
    EXPECT_EQ(sem.waitMany(1, -1), 1);
}

TEST(SpinSemTest, PostWakesAsManyAsSleepAndKeepsTheRest) {
    SpinSem sem(0, 0);
    for (const auto& [max, units] : {std::pair(1u, 3u), {4u, 9u}}) {
        std::atomic<int> got{-1};
        std::thread sleeper([&, most = max] { got = sem.waitMany(most, -1); });
        std::this_thread::sleep_for(milliseconds(30));
        EXPECT_EQ(got, -1) << "returned without a unit";
        sem.post(units);
        sleeper.join();
        EXPECT_GE(got, 1);
        EXPECT_LE(got, static_cast<int>(max));
        EXPECT_EQ(sem.tryWaitMany(10), static_cast<int>(units) - got);
    }
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
    for (int i = 0; i < kUnits; i += 4) {
        sem.post(1);
        sem.post(3);
        std::this_thread::sleep_for(std::chrono::microseconds(i % 40));
    }
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
