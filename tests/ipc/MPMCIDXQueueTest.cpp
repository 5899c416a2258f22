#include "Vantel/Orbel/MPMCIDXQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <thread>
#include <vector>

#include "tests/support/WaitFor.h"

using Vantel::Orbel::MPMCIDXQueue;
using Clock = std::chrono::steady_clock;

namespace {

/// Each in both modes.
class IndexQueue : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Modes, IndexQueue, testing::Bool(),
                         [](const auto& mode) { return mode.param ? "Blocking" : "Spinning"; });

TEST_P(IndexQueue, HoldsItsCapacityInOrderOverManyLaps) {
    for (const int size : {1, 2, 8}) {
        SCOPED_TRACE(size);
        MPMCIDXQueue queue(size, GetParam());
        int value = 0;
        for (int lap = 0; lap < 5; ++lap) {
            EXPECT_TRUE(queue.empty());
            for (int i = 0; i < size; ++i) {
                EXPECT_TRUE(queue.tryPush(lap * size + i, 0));
            }
            EXPECT_FALSE(queue.tryPush(-5, 3)) << "one more than fits";
            EXPECT_FALSE(queue.empty());
            for (int i = 0; i < size; ++i) {
                ASSERT_TRUE(i % 2 == 0 ? queue.tryPop(value, 0) : queue.popWithTimeout(value, 0));
                EXPECT_EQ(value, lap * size + i);
            }
            EXPECT_FALSE(queue.tryPop(value, 3));
        }
        EXPECT_FALSE(queue.tryPush(1, -1));
        EXPECT_TRUE(queue.tryPush(1, INT_MAX));
        EXPECT_FALSE(queue.tryPop(value, -1));
        EXPECT_EQ(queue.capacity(), size);
    }
}

TEST_P(IndexQueue, TimedPopWaitsItsTimeAndTakesWhatArrivesMeanwhile) {
    MPMCIDXQueue queue(4, GetParam());
    int value = 0;
    const auto start = Clock::now();
    EXPECT_FALSE(queue.popWithTimeout(value, 20));
    EXPECT_FALSE(queue.popWithUsTimeout(value, 20000));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(40));
    EXPECT_FALSE(queue.popWithTimeout(value, -1));

    const std::jthread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        queue.push(7);
    });
    // A push that falls into the gap before the sleep does not wake, and a position that is won but
    // not yet filled ends the wait without a value: then the next round finds it.
    EXPECT_TRUE(OrbelTest::waitFor([&] {
        return queue.popWithUsTimeout(value, 2000000) || queue.popWithUsTimeout(value, LONG_MAX);
    }));
    EXPECT_EQ(value, 7);
}

TEST_P(IndexQueue, StopWakesAllWaitersAndRefusesEverythingAfter) {
    MPMCIDXQueue queue(1, GetParam());
    std::atomic<int> back{0};
    std::vector<std::jthread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            int value = 0;
            EXPECT_FALSE(queue.popWithTimeout(value, INT_MAX));
            ++back;
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(back, 0);
    queue.stop();
    waiters.clear();

    MPMCIDXQueue full(1, GetParam());
    ASSERT_TRUE(full.push(1));
    std::thread pusher([&] { EXPECT_FALSE(full.push(2)) << "pushed into a full queue"; });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    full.stop();
    pusher.join();
    int value = 0;
    EXPECT_TRUE(full.isStopped());
    EXPECT_FALSE(full.push(3));
    EXPECT_FALSE(full.tryPush(3, 3));
    EXPECT_FALSE(full.tryPop(value, 3)) << "what is in the queue stays there";
    EXPECT_FALSE(full.popWithTimeout(value, 1));
    EXPECT_FALSE(full.empty());
}

TEST_P(IndexQueue, FourProducersAndFourConsumersPassEachValueOnce) {
    constexpr int kSides = 4;
    constexpr int kEach = 25000;
    MPMCIDXQueue queue(64, GetParam());
    std::vector<std::atomic<int>> seen(kSides * kEach);
    std::atomic<int> left{kSides * kEach};
    std::vector<std::jthread> threads;
    for (int side = 0; side < kSides; ++side) {
        threads.emplace_back([&, side] {
            for (int i = 0; i < kEach; ++i) {
                while (!queue.tryPush(side * kEach + i, 20)) {
                    std::this_thread::yield();
                }
            }
        });
        threads.emplace_back([&, side] {
            // What one consumer gets of a producer is in order.
            int last[kSides] = {-1, -1, -1, -1};
            while (left > 0) {
                int value = -1;
                if (side % 2 == 0 ? queue.popWithUsTimeout(value, 200) : queue.tryPop(value, 5)) {
                    ASSERT_TRUE(value >= 0 && value < kSides * kEach);
                    EXPECT_GT(value, last[value / kEach]);
                    last[value / kEach] = value;
                    ++seen[static_cast<size_t>(value)];
                    --left;
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    threads.clear();
    for (size_t value = 0; value < seen.size(); ++value) {
        ASSERT_EQ(seen[value], 1) << value;
    }
    EXPECT_TRUE(queue.empty());
}

TEST(IndexQueueDeathTest, SizeMustBeAPositivePowerOfTwo) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const int size : {3, 0, -4}) {
        EXPECT_DEATH(MPMCIDXQueue(size, false), "size > 0 && \\(size & \\(size - 1\\)\\) == 0");
    }
}

}  // namespace
