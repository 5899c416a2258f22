#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/CThreadLite.h"
#include "Vantel/Orbel/CThreadManager.h"
#include "Vantel/Orbel/CThreadSpecific.h"
#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/RTAbsSleep.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"
#include "thread/ThreadInternal.h"

using namespace Vantel::Orbel;
using OrbelTest::waitFor;
using std::chrono::milliseconds;

namespace {

using Clock = std::chrono::steady_clock;

void loop(CThread& thread) {
    while (thread.looping()) {
        CThread::sleep(1);
    }
}

class TestThread : public CThread {
public:
    explicit TestThread(std::function<void(CThread&)> body = &loop, const char* name = "TestThread",
                        int priority = 64, int policy = 0, int stackSize = 0)
        : CThread(name, priority, policy, stackSize), mBody(std::move(body)) {}
    ~TestThread() override {
        if (!isThreadOver()) {
            destroyThread();
        }
        waitUntilOver();
    }

    bool waitUntilRunning() {
        return waitFor([this] { return getThreadId() > 0 && mEntered > 0; });
    }
    bool waitUntilOver() {
        return waitFor([this] { return isThreadOver(); });
    }
    bool run() { return createThread() && waitUntilOver(); }

    std::atomic<int> mEntered{0};

protected:
    void threadProc() override {
        ++mEntered;
        mBody(*this);
    }

private:
    std::function<void(CThread&)> mBody;
};

class ThreadTest : public testing::Test {
protected:
    OrbelTest::LogCapture mLog;
    CThreadManager& mManager = *CThreadManager::instance();
};

TEST_F(ThreadTest, RunsOnceAtATimeAndAgainAfterItsEnd) {
    TestThread thread;
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_EQ(thread.getThreadId(), -1);
    EXPECT_FALSE(thread.destroyThread());
    EXPECT_TRUE(mLog.has("thread 'TestThread' has exited!"));
    EXPECT_FALSE(thread.cancelThread());
    EXPECT_TRUE(mLog.has("thread 'TestThread' not exist!"));

    ASSERT_TRUE(thread.createThread());
    EXPECT_FALSE(thread.createThread());
    EXPECT_TRUE(mLog.has("thread TestThread is still running"));
    ASSERT_TRUE(thread.waitUntilRunning());
    EXPECT_TRUE(mManager.hasThread(thread.getThreadId()));
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_FALSE(thread.destroyThread());
    EXPECT_TRUE(mLog.has("thread 'TestThread' has been destroyed!"));

    for (int run = 2; run < 30; ++run) {
        ASSERT_TRUE(thread.createThread());
        if (run % 3 == 0) {
            thread.waitUntilRunning();
        }
        ASSERT_FALSE(thread.terminateThread()) << "nothing can be joined";
        ASSERT_FALSE(thread.looping());
    }
    ASSERT_TRUE(thread.waitUntilOver());
    EXPECT_EQ(thread.mEntered, 29);
    EXPECT_FALSE(mManager.hasThread(thread.getThreadId()));
}

TEST_F(ThreadTest, CreateAndDestroyWaitForTheEndOfACancelledRun) {
    std::atomic<int> inside{0};
    std::atomic<int> together{0};
    std::atomic<bool> stay{true};
    TestThread thread([&](CThread& self) {
        together += ++inside > 1 ? 1 : 0;
        loop(self);
        waitFor([&] { return !stay; });  // long on its way out
        --inside;
    });
    // Whether `next`, called while the run is on its way out, is true and not before its end.
    const auto waits = [&](bool (CThread::*next)()) {
        stay = true;
        EXPECT_TRUE(thread.cancelThread());
        EXPECT_FALSE(thread.isThreadOver()) << "cancelThread does not wait";
        std::atomic<int> stage{0};
        bool result = false;
        std::thread caller([&] {
            stage = 1;
            result = (thread.*next)();
            stage = 2;
        });
        waitFor([&] { return stage > 0; });
        CThread::sleep(30);
        EXPECT_EQ(stage, 1);
        stay = false;
        caller.join();
        return result;
    };
    ASSERT_TRUE(thread.createThread() && thread.waitUntilRunning());
    const int firstId = thread.getThreadId();
    EXPECT_TRUE(waits(&CThread::createThread));
    ASSERT_TRUE(waitFor([&] { return thread.mEntered == 2; }));
    EXPECT_NE(thread.getThreadId(), firstId);
    EXPECT_TRUE(waits(&CThread::destroyThread)) << "although the semaphore is not posted";
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_EQ(together, 0);
}

TEST_F(ThreadTest, DestroyOfItselfOnlyAsks) {
    std::atomic<bool> asked{false};
    TestThread thread([&](CThread& self) { asked = self.destroyThread() && !self.looping(); });
    ASSERT_TRUE(thread.run());
    EXPECT_TRUE(asked);
}

TEST_F(ThreadTest, DestructorsOfRunningThreadsWait) {
    std::atomic<int> ended{0};
    for (int i = 0; i < 50; ++i) {
        CThreadLite lite(CThreadLite::Proc(+[](CThreadLite& self) { loop(self); }), "", 64, 0, 0);
        ASSERT_TRUE(lite.createThread());
        TestThread thread([&](CThread& self) {
            loop(self);
            ++ended;
        });
        ASSERT_TRUE(thread.createThread());
        if (i % 2 == 0) {
            lite.cancelThread();
        }
    }
    EXPECT_EQ(ended, 50);
    CThreadLite empty(CThreadLite::Proc(), "empty", 64, 0, 0);
    EXPECT_TRUE(empty.createThread());
}

/// The name that the kernel has of a thread.
std::string kernelName(int tid) {
    std::string name;
    std::getline(std::ifstream("/proc/self/task/" + std::to_string(tid) + "/comm"), name);
    return name;
}

TEST_F(ThreadTest, NamesAreCutAndCopiedAndLiteOnesToldToTheKernel) {
    EXPECT_STREQ(TestThread(&loop, nullptr).getThreadName(), "noNamed");
    TestThread thread(&loop, std::string(40, 'n').c_str());
    EXPECT_EQ(thread.getThreadName(), std::string(31, 'n'));
    thread.setThreadName("second");
    ASSERT_TRUE(thread.createThread() && thread.waitUntilRunning());
    EXPECT_TRUE(mLog.has("ThreadBody Enter name = second,"));
    thread.setThreadName("third");
    std::string name;
    EXPECT_FALSE(mManager.getThreadNameById(-7, name));
    EXPECT_TRUE(mManager.getThreadNameById(thread.getThreadId(), name));
    EXPECT_EQ(name, "third");
    EXPECT_NE(kernelName(thread.getThreadId()), "third");
    EXPECT_TRUE(thread.destroyThread());
    EXPECT_TRUE(mLog.has("ThreadBody leave name = third,"));

    CThreadLite lite(CThreadLite::Proc(+[](CThreadLite& self) { loop(self); }),
                     "a lite thread's name", 64, 0, 0);
    ASSERT_TRUE(lite.createThread());
    EXPECT_TRUE(waitFor([&] { return kernelName(lite.getThreadId()) == "a lite thread's"; }));
    EXPECT_FALSE(CThread::setCurrentThreadName(nullptr));
}

/// What a thread finds itself with.
struct Attributes {
    int nice = -100;
    int core = -1;
    int policy = -1;
    sched_param parameter{};
    size_t stackSize = 0;

    void look(CThread&) {
        nice = getpriority(PRIO_PROCESS, static_cast<id_t>(CThread::getCurrentThreadId()));
        core = sched_getcpu();
        pthread_getschedparam(pthread_self(), &policy, &parameter);
        pthread_attr_t attributes;
        void* base = nullptr;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstack(&attributes, &base, &stackSize);
        pthread_attr_destroy(&attributes);
    }
    std::function<void(CThread&)> body() {
        return [this](CThread& self) { look(self); };
    }
};

TEST_F(ThreadTest, SchedulingOfNormalThreads) {
    EXPECT_EQ(niceValue(1), -19);
    EXPECT_EQ(niceValue(64), 0);
    Attributes seen;
    TestThread thread(seen.body());
    thread.setSchedulePolicy(127, false);
    EXPECT_TRUE(mLog.has("thread:TestThread set schedule priority:127,policy:N"));
    thread.setSchedulePolicy(-1, false);  // keeps the priority
    EXPECT_FALSE(thread.setRunCPUCoreId(-1));
    EXPECT_FALSE(thread.setRunCPUCoreId(100000));
    EXPECT_TRUE(mLog.has("set affinity cpu core id(100000) check failed"));
    EXPECT_TRUE(thread.setRunCPUCoreId(0));
    EXPECT_FALSE(thread.setRunCPUCoreId(0));
    EXPECT_TRUE(mLog.has("has set affinity cpu id"));
    ASSERT_TRUE(thread.run());
    EXPECT_EQ(seen.nice, 19);
    EXPECT_EQ(seen.core, 0);

    EXPECT_TRUE(TestThread(seen.body(), "odd", 64, 5, 0).run());
    EXPECT_TRUE(mLog.has("CThread::CreateThread policy isn't set properly, policy = 5"));
}

TEST_F(ThreadTest, RealTimeWhereThePrivilegeIsThere) {
    EXPECT_EQ(realtimePriority(1, 1, 99), 99);
    EXPECT_EQ(realtimePriority(64, 1, 99), 50);
    EXPECT_EQ(realtimePriority(127, 1, 99), 1);
    Attributes seen;
    TestThread thread(seen.body(), "rt", 64, 1, 0);
    if (!thread.createThread()) {
        EXPECT_TRUE(mLog.has("pthread create failed, errno=1"));
        EXPECT_TRUE(thread.looping()) << "stays set after a failed start";
        GTEST_SKIP() << "no right to first-in-first-out scheduling";
    }
    ASSERT_TRUE(thread.waitUntilOver());
    EXPECT_EQ(seen.policy, SCHED_FIFO);
    EXPECT_EQ(seen.parameter.sched_priority,
              realtimePriority(64, sched_get_priority_min(SCHED_FIFO),
                               sched_get_priority_max(SCHED_FIFO)));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(ThreadTest, SmallestStackCarriesTheThreadAndItsLogLines) {
    Attributes seen;
    ASSERT_TRUE(TestThread(seen.body(), "small", 64, 0, 1000).run());
    EXPECT_EQ(seen.stackSize, 16384U);
    EXPECT_TRUE(mLog.has("ThreadBody leave name = small"));
}
#endif

TEST_F(ThreadTest, DeadlinesShowInTheManager) {
    std::atomic<int> stage{0};
    TestThread thread(
        [&](CThread& self) {
            CThread::setCurrentTimeout(1);
            waitFor([&] { return stage == 1; });
            self.setTimeout(0);
            stage = 2;
            loop(self);
        },
        "late");
    EXPECT_FALSE(thread.isTimeout());
    EXPECT_FALSE(CThread::setCurrentTimeout(5)) << "this is no CThread";
    ASSERT_TRUE(thread.createThread());
    ASSERT_TRUE(waitFor([&] { return thread.isTimeout(); }));
    std::vector<std::string> names{"left over"};
    EXPECT_TRUE(mManager.getTimeoutThreadName(names));
    EXPECT_EQ(names,
              std::vector<std::string>{"late(" + std::to_string(thread.getThreadId()) + ")"});
    mManager.registerMainThread();
    mManager.printThreads();
    char row[128];
    std::snprintf(row, sizeof row, "%24s   %8d  %3d  Timeout\n", "late", thread.getThreadId(), 64);
    EXPECT_TRUE(mLog.has(row));
    std::snprintf(row, sizeof row, "%24s   %8d  %3d  normal\n\n", "main", getpid(), 64);
    EXPECT_TRUE(mLog.has(row));
    stage = 1;
    ASSERT_TRUE(waitFor([&] { return stage == 2; }));
    EXPECT_FALSE(mManager.getTimeoutThreadName(names));
    EXPECT_TRUE(names.empty());

    TestThread other;  // the form with a reading of the clock
    const auto now = static_cast<int>(CTime::getCurrentMilliSecond());
    if (now > 0) {
        other.setTimeout(0, now - 10);
        EXPECT_TRUE(other.isTimeout());
    }
    other.setTimeout(1, -1000000);  // after 24.8 days of uptime
    EXPECT_FALSE(other.isTimeout()) << "a negative reading makes a deadline that never passes";
    other.setTimeout(5, 0);
    EXPECT_FALSE(other.isTimeout());
}

TEST_F(ThreadTest, ManagerIsAskedWhileThreadsComeAndGo) {
    std::atomic<bool> done{false};
    std::thread asker([&] {
        std::vector<std::string> names;
        while (!done) {
            mManager.getTimeoutThreadName(names);
            mManager.printThreads();
        }
    });
    TestThread threads[3];
    for (int round = 0; round < 60; ++round) {
        TestThread& thread = threads[round % 3];
        ASSERT_TRUE(thread.createThread());
        thread.setThreadName(round % 2 == 0 ? "even" : "odd");
        ASSERT_TRUE(thread.destroyThread());
    }
    done = true;
    asker.join();
}

TEST(SleepTest, IsNotShortenedBySignals) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const std::function<void()> sleeps[] = {[] { CThread::sleep(50); },
                                            [] { CThread::interruptWait(50'000'000); },
                                            [] { RTAbsSleep::manualBackoff(50'000'000); }};
    for (const auto& sleep : sleeps) {
        std::atomic<bool> done{false};
        std::thread sleeper([&] {
            const auto start = Clock::now();
            sleep();
            EXPECT_GE(Clock::now() - start, milliseconds(50)) << &sleep - sleeps;
            done = true;
        });
        while (!done) {
            pthread_kill(sleeper.native_handle(), SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(700));
        }
        sleeper.join();
    }
    CThread::sleep(-1);  // or for ever
}

TEST(ThreadIdTest, IsRightInAForkedChild) {
    EXPECT_EQ(CThread::getCurrentThreadId(), gettid());
    const pid_t child = fork();
    if (child == 0) {
        _exit(CThread::getCurrentThreadId() == gettid() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST(RTAbsSleepTest, RhythmHoldsAndRestartsAfterAnOverrun) {
    constexpr long kStep = 10'000'000;
    RTAbsSleep rhythm(kStep, kStep);
    const auto lasts = [](auto sleep) {
        const auto start = Clock::now();
        sleep();
        return Clock::now() - start;
    };
    rhythm.waitNextPeriod();  // none yet
    const auto five = lasts([&] {
        for (int i = 0; i < 5; ++i) {
            rhythm.waitPeriodWithStepForward(kStep);
        }
    });
    EXPECT_GE(five, milliseconds(50));
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_GE(lasts([&] { rhythm.waitPeriodWithStepForward(kStep); }), milliseconds(10))
        << "caught up with what was missed";
    const auto periodAndBackOff = lasts([&] {
        rhythm.periodComplete();
        rhythm.waitNextPeriod();
        rhythm.autoBackoff();
    });
    EXPECT_GE(periodAndBackOff, milliseconds(20));
    rhythm.setPeriodNs(3600L * 1'000'000'000);
    rhythm.periodComplete();
    rhythm.resetRhythm();
    rhythm.waitNextPeriod();  // an hour, if it were not forgotten
}

TEST(CThreadSpecificTest, EachThreadHasItsOwnValue) {
    CThreadSpecific slot;
    int mine = 0;
    void* value = &mine;
    EXPECT_FALSE(slot.getValue(nullptr));
    EXPECT_TRUE(slot.getValue(&value));
    EXPECT_EQ(value, nullptr);
    EXPECT_TRUE(slot.setValue(&mine));
    std::thread([&] {
        void* other = &mine;
        EXPECT_TRUE(slot.getValue(&other));
        EXPECT_EQ(other, nullptr);
    }).join();
    EXPECT_TRUE(slot.getValue(&value));
    EXPECT_EQ(value, &mine);

    std::vector<std::unique_ptr<CThreadSpecific>> all;  // until the process has no slot left
    do {
        all.push_back(std::make_unique<CThreadSpecific>());
    } while (all.back()->valid() && all.size() < 5000);
    EXPECT_FALSE(all.back()->setValue(&mine));
    EXPECT_FALSE(all.back()->getValue(&value));
    EXPECT_EQ(value, &mine);
}

}  // namespace
