#include "Vantel/Orbel/TSignal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "tests/support/WaitFor.h"

using Vantel::Orbel::TDelegate;
using Vantel::Orbel::TSignal;

namespace {

/// A slot that leaves its letter in a common trace, then does what the test wants.
class Slot {
public:
    Slot(std::string& trace, char letter) : mTrace(trace), mLetter(letter) {}
    void run(int value) {
        mTrace += mLetter;
        if (action) {
            action(value);
        }
    }
    TDelegate<void, int> delegate() { return {this, &Slot::run}; }
    std::function<void(int)> action;

private:
    std::string& mTrace;
    char mLetter;
};

class TSignalTest : public testing::TestWithParam<bool> {
protected:
    std::string emit() {
        mTrace.clear();
        mSignal(7);
        return mTrace;
    }
    void attachAll() {
        mSignal.attach(a.delegate());
        mSignal.attach(b.delegate());
        mSignal.attach(c.delegate());
    }

    TSignal<int> mSignal{GetParam()};
    std::string mTrace;
    Slot a{mTrace, 'a'}, b{mTrace, 'b'}, c{mTrace, 'c'}, d{mTrace, 'd'};
};

INSTANTIATE_TEST_SUITE_P(Locked, TSignalTest, testing::Bool());

void free1(int) {}

TEST_P(TSignalTest, AttachCountsAndRefusesEqualOnes) {
    EXPECT_EQ(mSignal.attach(&free1), 1);
    EXPECT_EQ(mSignal.attach(&free1), -1);
    EXPECT_EQ(mSignal.attach(a.delegate()), 2);
    EXPECT_EQ(mSignal.attach(b.delegate()), 3) << "same member, another object";
    EXPECT_EQ(mSignal.attach(a.delegate()), -1);
    EXPECT_TRUE(mSignal.detach(&free1));
    EXPECT_FALSE(mSignal.detach(&free1));
    mSignal.detach(c.delegate());
    EXPECT_EQ(emit(), "ab");
    EXPECT_EQ(mSignal.attach(&free1), 3);
}

TEST_P(TSignalTest, EmptyDelegatesAreEqual) {
    EXPECT_EQ(mSignal.attach({}), 1);
    EXPECT_EQ(mSignal.attach({}), -1);
    mSignal.detach({});
    EXPECT_EQ(emit(), "");
}

TEST_P(TSignalTest, DetachDuringTheEmission) {
    attachAll();
    a.action = [this](int) { mSignal.detach(a.delegate()); };
    EXPECT_EQ(emit(), "abc") << "a slot that removes itself";
    EXPECT_EQ(emit(), "bc");
    b.action = [this](int) { mSignal.detach(c.delegate()); };
    EXPECT_EQ(emit(), "b") << "the next one is not called any more";
    mSignal.attach(c.delegate());
    b.action = [this](int) {
        mSignal.detach(b.delegate());
        mSignal.detach(c.delegate());
    };
    EXPECT_EQ(emit(), "b");
    EXPECT_EQ(emit(), "");
}

TEST_P(TSignalTest, AttachDuringTheEmissionIsCalledInIt) {
    attachAll();
    a.action = [this](int) { mSignal.attach(d.delegate()); };
    EXPECT_EQ(emit(), "abcd") << "attached in the middle";
    mSignal.detach(d.delegate());
    a.action = nullptr;
    c.action = [this](int) { mSignal.attach(d.delegate()); };
    EXPECT_EQ(emit(), "abcd") << "attached by the last one";
    mSignal.detach(d.delegate());
    c.action = [this, rounds = 0](int) mutable {
        if (++rounds < 3) {
            mSignal.detach(c.delegate());
            mSignal.attach(c.delegate());
        }
    };
    EXPECT_EQ(emit(), "abccc") << "the last one, taken away and put behind itself";
}

TEST_P(TSignalTest, AnInnerEmissionEndsTheOuterOne) {
    attachAll();
    b.action = [this, inner = false](int) mutable {
        if (!inner) {
            inner = true;
            mSignal(8);
        }
    };
    EXPECT_EQ(emit(), "ababc");
}

TEST_P(TSignalTest, AnExceptionSkipsTheRestAndReleasesTheLock) {
    attachAll();
    b.action = [](int) { throw std::runtime_error("b"); };
    EXPECT_THROW(mSignal(1), std::runtime_error);
    EXPECT_EQ(mTrace, "ab");
    b.action = nullptr;
    mTrace.clear();
    std::thread([this] { mSignal(1); }).join();  // would hang on a lock left behind
    EXPECT_EQ(mTrace, "abc");
}

TEST(TSignalThreads, DetachWaitsForARunningEmission) {
    TSignal<std::atomic<int>*> signal;
    static std::atomic<bool> release{false};
    static std::atomic<bool> finished{false};
    const auto slow = +[](std::atomic<int>* calls) {
        ++*calls;
        while (!release) {
            std::this_thread::yield();
        }
        finished = true;
    };
    std::atomic<int> calls{0};
    signal.attach(slow);
    std::thread emitter([&] { signal(&calls); });
    ASSERT_TRUE(OrbelTest::waitFor([&] { return calls == 1; }));
    auto detached = std::async(std::launch::async, [&] {
        signal.detach(slow);
        return finished.load();
    });
    EXPECT_EQ(detached.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    release = true;
    EXPECT_TRUE(detached.get()) << "returned while the delegate ran";
    emitter.join();
    signal(&calls);
    EXPECT_EQ(calls, 1);
}

TEST(TSignalThreads, AttachDetachAndEmitFromAllSides) {
    TSignal<int> signal;
    std::atomic<int> sum{0};
    struct Adder {
        void add(int value) { *sum += value; }
        std::atomic<int>* sum;
    };
    Adder fixed{&sum};
    signal.attach({&fixed, &Adder::add});
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            std::atomic<int> local{0};
            for (int round = 0; round < 500; ++round) {
                Adder own{&local};
                signal.attach({&own, &Adder::add});
                signal(1);
                signal.detach({&own, &Adder::add});
            }
            EXPECT_GE(local, 500);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sum, 1500);
}

}  // namespace
