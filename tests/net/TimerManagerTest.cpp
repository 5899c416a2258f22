#include "net/TimerManager.h"

#include <gtest/gtest.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Vantel/Orbel/EventLoop.h"
#include "frame/base/UniqueFd.h"

using namespace Vantel::Orbel;

namespace {

TimerNode node(uint64_t id, uint64_t expiry) {
    TimerNode made;
    made.id = id;
    made.expiry = expiry;
    return made;
}

TEST(MinHeapTest, AgreesWithASortedSetUnderRandomWork) {
    std::mt19937_64 random(20240607);
    MinHeap heap;
    std::map<uint64_t, uint64_t> expiryOf;  // the same by id
    const auto earliest = [&] {
        uint64_t found = expiryOf.empty() ? 0 : expiryOf.begin()->second;
        for (const auto& [id, expiry] : expiryOf) {
            found = std::min(found, expiry);
        }
        return found;
    };
    for (uint64_t step = 1; step <= 20000; ++step) {
        const uint64_t id = random() % 200 + 1;
        const uint64_t expiry = random() % 50;  // many equal ones
        const bool known = expiryOf.count(id) != 0;
        switch (random() % 4) {
            case 0:
                if (!known) {
                    heap.push(node(id, expiry));
                    expiryOf[id] = expiry;
                }
                break;
            case 1:
                EXPECT_EQ(heap.removeTimer(id), expiryOf.erase(id) == 1);
                break;
            case 2:
                EXPECT_EQ(heap.updateTimer(id, node(id, expiry)), known);
                if (known) {
                    expiryOf[id] = expiry;
                }
                break;
            default:
                if (step % 3 == 0 && !heap.empty()) {
                    const TimerNode popped = heap.pop();
                    ASSERT_EQ(popped.expiry, earliest());
                    ASSERT_EQ(expiryOf.at(popped.id), popped.expiry);
                    expiryOf.erase(popped.id);
                }
        }
        ASSERT_EQ(heap.size(), expiryOf.size());
        ASSERT_EQ(heap.top().expiry, earliest());
        ASSERT_EQ(heap.findTimerIndex(id) != MinHeap::kNotFound, expiryOf.count(id) != 0);
        ASSERT_LT(heap.findTimerIndex(heap.top().id) + 1, 2u) << "the top is at 0, or nowhere";
    }
}

TEST(MinHeapTest, EmptyFullAndMoved) {
    MinHeap heap;
    EXPECT_EQ(heap.pop().id, 0u);
    for (uint64_t id = 1; id <= 17; ++id) {
        heap.push(node(id, 100 - id));
    }
    EXPECT_EQ(heap.capacity(), 32u) << "doubled";
    MinHeap moved = std::move(heap);
    EXPECT_EQ(moved.top().id, 17u);
    EXPECT_FALSE(heap.removeTimer(17));
    heap.push(node(5, 5));
    heap = std::move(moved);
    EXPECT_EQ(heap.size(), 17u);
    heap.clear();
    EXPECT_EQ(heap.findTimerIndex(17), MinHeap::kNotFound);
    heap.push(node(17, 1));
    EXPECT_EQ(heap.pop().id, 17u);
}

class TimerManagerTest : public testing::Test {
protected:
    /// Milliseconds until the timerfd of mTimers fires; -1 if it is disarmed.
    int64_t armedMs() {
        itimerspec when{};
        EXPECT_EQ(timerfd_gettime(mTimerFd, &when), 0);
        const int64_t ns = when.it_value.tv_sec * 1000000000L + when.it_value.tv_nsec;
        return ns == 0 ? -1 : ns / 1000000;
    }

    /// A timer of 1 ms whose callback knows its id.
    unsigned long addKnowing(const std::function<void(unsigned long id)>& callback, bool repeat) {
        const auto id = std::make_shared<unsigned long>();
        return *id = mTimers->addTimer([id, callback] { callback(*id); }, 1, repeat);
    }

    EventLoop mLoop;
    UniqueFd mNext{dup(0)};  // the lowest free descriptor, which the timerfd then gets
    const int mTimerFd = mNext.get();
    std::unique_ptr<TimerManager> mTimers = (mNext.reset(), std::make_unique<TimerManager>(&mLoop));
};

TEST_F(TimerManagerTest, TheDescriptorIsArmedForTheEarliestTimer) {
    EXPECT_EQ(armedMs(), -1);
    const unsigned long late = mTimers->addTimer([] {}, 3000000, false);
    EXPECT_GT(armedMs(), 2000000);
    const unsigned long early = mTimers->addTimer([] {}, 1000000, false);
    EXPECT_LE(armedMs(), 1000000);
    const unsigned long middle = mTimers->addTimer([] {}, 2000000, false);
    EXPECT_LE(armedMs(), 1000000);
    mTimers->cancelTimer(early);
    EXPECT_GT(armedMs(), 1000000);
    EXPECT_LE(armedMs(), 2000000);
    EXPECT_TRUE(mTimers->modifyTimer(late, 500000, false));
    EXPECT_LE(armedMs(), 500000);
    EXPECT_TRUE(mTimers->modifyTimer(late, 4000000, false));
    EXPECT_GT(armedMs(), 500000);
    EXPECT_TRUE(mTimers->modifyTimer(middle, std::numeric_limits<int64_t>::max(), false));
    EXPECT_GT(armedMs(), 3000000);
    mTimers->cancelTimer(late);
    EXPECT_GT(armedMs(), 4000000) << "the farthest future is still ahead";
    mTimers->cancelTimer(middle);
    EXPECT_EQ(armedMs(), -1);
    mTimers->cancelTimer(middle);
    EXPECT_FALSE(mTimers->modifyTimer(middle, 1, false));
    EXPECT_FALSE(mTimers->resetTimer(4711));
}

TEST_F(TimerManagerTest, FiresInOrderOfExpiryAndNotEarly) {
    std::string order;
    const auto begin = std::chrono::steady_clock::now();
    const auto fired = [&](char name, int atMs) {
        return [&, name, atMs] {
            order += name;
            EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(atMs));
        };
    };
    mTimers->addTimer(fired('c', 30), 30, false);
    mTimers->addTimer(fired('b', 20), 20, false);
    mTimers->addTimer(fired('a', 1), 0, false);
    mTimers->addTimer(fired('a', 1), std::numeric_limits<int64_t>::min(), false);
    mTimers->addTimer([this] { mLoop.quit(); }, 40, false);
    mLoop.loop();
    EXPECT_EQ(order, "aabc");
    EXPECT_EQ(armedMs(), -1);
}

TEST_F(TimerManagerTest, ATimerMayCancelOrModifyItselfInItsCallback) {
    int cancelled = 0;
    int modified = 0;
    int ended = 0;
    bool known = true;
    const unsigned long cancelling = addKnowing(
        [&](unsigned long id) {
            ++cancelled;
            mTimers->cancelTimer(id);
        },
        true);
    const unsigned long modifying = addKnowing(
        [&](unsigned long id) {
            ++modified;
            EXPECT_TRUE(mTimers->modifyTimer(id, 7200000, true));
        },
        true);
    addKnowing([&](unsigned long id) { known = mTimers->modifyTimer(id, 1, true); }, false);
    addKnowing([&](unsigned long id) { ++ended == 1 && mTimers->modifyTimer(id, 1, false); }, true);
    mLoop.setMode(kLoopTimed);
    mLoop.setTimeout(100);
    mLoop.loop();
    EXPECT_EQ(cancelled, 1);
    EXPECT_FALSE(known) << "a one-shot is gone when its callback runs";
    EXPECT_EQ(ended, 2) << "once more, and repeats no longer";
    EXPECT_EQ(modified, 1);
    long remainingMs = 0;
    bool repeat = false;
    ASSERT_TRUE(mTimers->getTimerInfo(modifying, remainingMs, repeat));
    EXPECT_GT(remainingMs, 7000000);
    EXPECT_TRUE(repeat);
    EXPECT_FALSE(mTimers->getTimerInfo(cancelling, remainingMs, repeat));
}

TEST_F(TimerManagerTest, ARepeatingTimerCountsFromTheEndOfItsCallback) {
    std::vector<std::chrono::steady_clock::time_point> starts;
    mTimers->addTimer(
        [&] {
            starts.push_back(std::chrono::steady_clock::now());
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
            if (starts.size() == 4) {
                mLoop.quit();
            }
        },
        10, true);
    mLoop.loop();
    for (size_t i = 1; i < starts.size(); ++i) {
        EXPECT_GE(starts[i] - starts[i - 1], std::chrono::milliseconds(35));
    }
}

TEST_F(TimerManagerTest, OneDueTimerMayCancelAnother) {
    int fired = 0;
    unsigned long ids[2] = {};
    for (int i = 0; i < 2; ++i) {
        ids[i] = mTimers->addTimer(
            [&, i] {
                ++fired;
                mTimers->cancelTimer(ids[1 - i]);
            },
            5, false);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    long remainingMs = -1;
    bool repeat = true;
    EXPECT_TRUE(mTimers->getTimerInfo(ids[0], remainingMs, repeat));
    EXPECT_EQ(remainingMs, 0) << "overdue, not negative";
    EXPECT_FALSE(repeat);
    mTimers->handleTimers();
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(armedMs(), -1);
}

TEST_F(TimerManagerTest, DueTimersAddedInAPassWaitForTheNext) {
    int fired = 0;
    std::function<void()> again = [&] {
        std::this_thread::sleep_for(std::chrono::microseconds(10));  // the clock must move on
        if (++fired < 100) {
            mTimers->addTimer(again, 0, false);
        }
    };
    mTimers->addTimer(again, -1, false);
    mTimers->addTimer(again, -1, false);
    mTimers->handleTimers();
    EXPECT_EQ(fired, 2) << "both due ones, and none that they added";
}

TEST_F(TimerManagerTest, WhatACallbackCapturedGoesWithItsTimer) {
    const auto captured = std::make_shared<int>();
    const unsigned long id = mTimers->addTimer([captured] {}, 1000, true);
    mTimers->addTimer([captured] {}, 0, false);
    EXPECT_EQ(captured.use_count(), 3);
    mTimers->cancelTimer(id);
    EXPECT_EQ(captured.use_count(), 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    mTimers->handleTimers();
    EXPECT_EQ(captured.use_count(), 1);
}

}  // namespace
