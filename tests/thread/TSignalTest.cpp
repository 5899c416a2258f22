#include "Vantel/Orbel/TSignal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/support/WaitFor.h"

using Vantel::Orbel::TDelegate;
using Vantel::Orbel::TSignal;

namespace {

/// A slot that leaves its letter in a common trace, then does what the test wants.
struct Slot {
    void run(int) {
        trace += letter;
        if (action) {
            action();
        }
    }

    std::string& trace;
    const char letter;
    std::function<void()> action = {};
    TDelegate<void, int> delegate{this, &Slot::run};
};

class TSignalTest : public testing::TestWithParam<bool> {
protected:
    TSignalTest() {
        for (const Slot* slot : {&a, &b, &c}) {
            mSignal.attach(slot->delegate);
        }
    }
    std::string emit() {
        mTrace.clear();
        mSignal(7);
        return mTrace;
    }

    TSignal<int> mSignal{GetParam()};
    std::string mTrace;
    Slot a{mTrace, 'a'}, b{mTrace, 'b'}, c{mTrace, 'c'}, d{mTrace, 'd'};
};

INSTANTIATE_TEST_SUITE_P(Locked, TSignalTest, testing::Bool());

void nothing(int) {}

TEST_P(TSignalTest, AttachCountsAndRefusesEqualOnes) {
    EXPECT_EQ(mSignal.attach(&nothing), 4);
    EXPECT_EQ(mSignal.attach(&nothing), -1);
    EXPECT_EQ(mSignal.attach(d.delegate), 5) << "same member, another object";
    EXPECT_EQ(mSignal.attach({&a, &Slot::run}), -1);
    EXPECT_TRUE(mSignal.detach(&nothing));
    EXPECT_FALSE(mSignal.detach(&nothing));
    EXPECT_EQ(emit(), "abcd");
    EXPECT_EQ(mSignal.attach({}), 5);
    EXPECT_EQ(mSignal.attach({}), -1) << "empty ones are equal";
    EXPECT_EQ(emit(), "abcd") << "and nobody calls them";
}

TEST_P(TSignalTest, DetachDuringTheEmission) {
    a.action = [this] { mSignal.detach(a.delegate); };
    EXPECT_EQ(emit(), "abc") << "a slot that removes itself";
    EXPECT_EQ(emit(), "bc");
    b.action = [this] {
        mSignal.detach(b.delegate);
        mSignal.detach(c.delegate);
    };
    EXPECT_EQ(emit(), "b") << "the next one is not called any more";
    EXPECT_EQ(emit(), "");
}

TEST_P(TSignalTest, AttachDuringTheEmissionIsCalledInIt) {
    for (Slot* slot : {&a, &c}) {
        slot->action = [this] { mSignal.attach(d.delegate); };
        EXPECT_EQ(emit(), "abcd");
        slot->action = nullptr;
        mSignal.detach(d.delegate);
    }
    c.action = [this, rounds = 0]() mutable {
        if (++rounds < 3) {
            mSignal.detach(c.delegate);
            mSignal.attach(c.delegate);
        }
    };
    EXPECT_EQ(emit(), "abccc") << "the last one, taken away and put behind itself";
}

TEST_P(TSignalTest, AnInnerEmissionEndsTheOuterOne) {
    b.action = [this, inner = false]() mutable {
        if (!inner) {
            inner = true;
            mSignal(8);
        }
    };
    EXPECT_EQ(emit(), "ababc");
}

TEST_P(TSignalTest, AnExceptionSkipsTheRestAndReleasesTheLock) {
    b.action = [] { throw std::runtime_error("b"); };
    EXPECT_THROW(emit(), std::runtime_error);
    EXPECT_EQ(mTrace, "ab");
    b.action = nullptr;
    std::thread([this] { EXPECT_EQ(emit(), "abc"); }).join();  // or hangs on a lock left behind
}

TEST(TSignalThreads, DetachWaitsForARunningEmission) {
    TSignal<> signal;
    static std::atomic<int> calls{0};
    static std::atomic<bool> release{false};
    static std::atomic<bool> finished{false};
    const auto slow = +[] {
        ++calls;
        OrbelTest::waitFor([] { return release.load(); });
        finished = true;
    };
    signal.attach(slow);
    std::thread emitter([&] { signal(); });
    ASSERT_TRUE(OrbelTest::waitFor([] { return calls == 1; }));
    std::thread detacher([&] {
        EXPECT_TRUE(signal.detach(slow));
        EXPECT_TRUE(finished) << "returned while the delegate ran";
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    release = true;
    detacher.join();
    emitter.join();
    signal();
    EXPECT_EQ(calls, 1);
}

TEST(TSignalThreads, AttachDetachAndEmitFromAllSides) {
    struct Counter {
        void count() { ++calls; }
        std::atomic<int> calls{0};
    };
    TSignal<> signal;
    Counter common;
    signal.attach({&common, &Counter::count});
    const auto work = [&] {
        Counter own;
        for (int round = 0; round < 500; ++round) {
            signal.attach({&own, &Counter::count});
            signal();
            signal.detach({&own, &Counter::count});
        }
        EXPECT_GE(own.calls, 500);
    };
    std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(common.calls, 1500);
}

}  // namespace
