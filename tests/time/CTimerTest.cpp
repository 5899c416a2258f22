#include "Vantel/Orbel/CTimer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/CThreadManager.h"
#include "Vantel/Orbel/CTimerManager.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Orbel;
using OrbelTest::waitFor;
using Clock = std::chrono::steady_clock;

namespace {

int64_t msSince(Clock::time_point then, Clock::time_point now = Clock::now()) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(now - then).count();
}

/// A timer whose callback counts its runs and does what `action` says, until `hold` is over.
struct Probe {
    explicit Probe(const char* name = "probe") : timer(std::make_unique<CTimer>(name)) {}

    bool start(uint32_t delayMs, uint32_t periodMs = 0, uint32_t timeoutMs = 0) {
        begun = Clock::now();
        return timer->start({this, &Probe::run}, delayMs, periodMs, 7, timeoutMs);
    }
    void run(unsigned long param) {
        first = runs++ == 0 ? Clock::now() : first.load();
        thread = std::this_thread::get_id();
        wrong += ++inside == 1 && param == 7 ? 0 : 1;
        if (action != nullptr) {
            action(*this);
        }
        waitFor([this] { return !hold; });
        --inside;
    }
    bool ran(int count) {
        return waitFor([&] { return runs >= count; });
    }

    std::atomic<bool> hold{false};
    std::atomic<int> runs{0};
    std::atomic<int> inside{0};
    std::atomic<int> wrong{0};
    std::atomic<Clock::time_point> first{};
    std::atomic<std::thread::id> thread{};
    void (*action)(Probe&) = nullptr;
    Clock::time_point begun;
    std::unique_ptr<CTimer> timer;
};

TEST(CTimerTest, FiresAfterItsDelayOnAnotherThread) {
    Probe first;  // of the process: the manager's thread and its clock do not run before
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_TRUE(first.start(600));
    Probe at;
    EXPECT_TRUE(at.start(0, 10)) << "at once, then once a tick";
    ASSERT_TRUE(first.ran(1) && at.ran(4));
    EXPECT_GE(msSince(first.begun, first.first), 400) << "the clock began with the process";
    EXPECT_NE(first.thread.load(), std::this_thread::get_id());
    EXPECT_TRUE(first.timer->isCalled());
    EXPECT_FALSE(first.timer->isStarted());
    EXPECT_TRUE(at.timer->isStarted());
    EXPECT_FALSE(at.timer->isCalled());
    const int runs = at.runs;  // before the time is taken
    EXPECT_LE(runs, 2 + msSince(at.begun) / 90) << "missed periods are skipped";
    EXPECT_EQ(first.wrong + at.wrong, 0);
    EXPECT_FALSE(first.timer->start({}, 0, 0, 0, 0)) << "nothing to call";
}

TEST(CTimerTest, AFiringDuringARunIsDroppedAndTheThreadIsWatched) {
    OrbelTest::LogCapture log;
    Probe slow("slow");
    slow.hold = true;
    slow.action = [](Probe& probe) { probe.timer->enableStat(true); };
    ASSERT_TRUE(slow.start(0, 20, 50));
    ASSERT_TRUE(slow.ran(1));
    EXPECT_FALSE(slow.timer->start({&slow, &Probe::run}, 0, 20, 7, 50)) << "the last run goes on";
    std::vector<std::string> late;
    EXPECT_TRUE(waitFor([&] { return CThreadManager::instance()->getTimeoutThreadName(late); }));
    EXPECT_EQ(late.at(0).rfind("slow(", 0), 0u) << late.at(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_TRUE(slow.runs == 1 && slow.timer->isRunning());
    std::thread release([&] {
        slow.timer->setName("slow");  // while stopAndWait() reads it
        waitFor([&] { return log.has("CTimer::Stop 'slow' wait callback exit!"); });
        slow.hold = false;
    });
    EXPECT_TRUE(slow.timer->stopAndWait());
    EXPECT_TRUE(slow.inside == 0 && !slow.timer->isRunning() && !slow.timer->isStarted());
    EXPECT_EQ(slow.wrong, 0);
    EXPECT_FALSE(CThreadManager::instance()->getTimeoutThreadName(late));
    release.join();
}

TEST(CTimerTest, StopFiresAPendingOneShotOnlyWhenAsked) {
    const struct {
        bool callNow;
        uint32_t periodMs;
        int runs;
    } cases[] = {{true, 0, 1}, {false, 0, 0}, {true, 1000000, 0}};
    for (const auto& c : cases) {
        Probe probe;
        probe.start(1000000, c.periodMs);
        EXPECT_TRUE(probe.timer->stop(c.callNow));
        EXPECT_TRUE(probe.ran(c.runs));
        EXPECT_EQ(probe.timer->isCalled(), c.runs == 1);
        EXPECT_FALSE(probe.timer->stop(c.callNow)) << "not armed any more";
        EXPECT_TRUE(probe.timer->stopAndWait());
        EXPECT_EQ(probe.runs, c.runs);
    }
}

TEST(CTimerTest, ACallbackMayStopRestartOrDestroyItsTimer) {
    Probe stops;
    stops.action = [](Probe& probe) { probe.timer->stopAndWait(); };
    stops.start(0, 10);
    Probe dies;
    dies.action = [](Probe& probe) { probe.timer.reset(); };
    dies.start(0);
    {
        Probe again;  // its destructor has to see the timer that comes back while it waits
        again.action = [](Probe& probe) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (probe.runs < 3) {
                probe.timer->start({&probe, &Probe::run}, 10, 0, 7, 0);
            }
        };
        again.start(0);
        ASSERT_TRUE(again.ran(1));
    }
    ASSERT_TRUE(stops.ran(1) && dies.ran(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_EQ(stops.runs, 1);
    EXPECT_EQ(dies.runs, 1);
}

TEST(CTimerTest, ANewPeriodMovesTheNextCall) {
    Probe sooner;
    Probe early;
    sooner.start(3600000, 3600000);
    early.start(10, 0xffffffff);
    sooner.timer->setPeriodTime(100);
    early.timer->setPeriodTime(100);  // would be due before the machine started
    EXPECT_TRUE(sooner.ran(2) && early.ran(2));
}

TEST(CTimerTest, AtTheLimitADueTimerWaitsForAThread) {
    OrbelTest::LogCapture log;
    CTimerManager& manager = *CTimerManager::instance();
    manager.printTimers();
    EXPECT_FALSE(log.has("Timers:")) << "no list without a limit";
    EXPECT_FALSE(manager.setCPUAffinity(-1));
    EXPECT_TRUE(manager.setCPUAffinity(0));
    manager.limitIdlePooled(2);
    {  // Four at once: more than the limit, as they do not wait for a tick. Two threads stay.
        Probe burst[4];
        for (Probe& probe : burst) {
            probe.hold = true;
            EXPECT_TRUE(probe.start(0));
        }
        for (Probe& probe : burst) {
            probe.hold = false;
        }
    }
    EXPECT_TRUE(waitFor([&] {
        manager.printTimers();
        return log.has("Thread count: ( 2 )");
    }));
    Probe busy[2];
    for (Probe& probe : busy) {
        probe.hold = true;
        probe.start(1);
    }
    ASSERT_TRUE(busy[0].ran(1) && busy[1].ran(1));
    Probe waiting("a name of forty characters, cut at the 31");
    waiting.start(1, 5000, 600);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(waiting.runs == 0 && waiting.timer->isStarted());
    manager.printTimers();
    EXPECT_TRUE(log.has("a name of forty characters, cut ")) << "the 31 characters and the blank";
    EXPECT_TRUE(log.has("           0   5000      0/   600 Idle\n"));
    busy[0].hold = false;
    EXPECT_TRUE(waiting.ran(1));
    busy[1].hold = false;
    manager.limitIdlePooled(0);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(CTimerTest, AFiringWithoutAThreadIsLostAndTheTimerStaysUsable) {
    std::vector<Probe> probes(64);  // more than idle threads in the pool and stacks in store
    for (Probe& probe : probes) {
        probe.hold = true;
    }
    rlimit before{};
    getrlimit(RLIMIT_AS, &before);
    const rlimit none{1, before.rlim_max};  // no stack for another thread
    ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
    const auto lost =
        std::find_if(probes.begin(), probes.end(), [](Probe& probe) { return !probe.start(0); });
    setrlimit(RLIMIT_AS, &before);
    for (Probe& probe : probes) {
        probe.hold = false;
    }
    ASSERT_NE(lost, probes.end());
    EXPECT_FALSE(lost->timer->isRunning());
    EXPECT_TRUE(lost->start(0) && lost->ran(1));
}
#endif

TEST(CTimerTest, AnyThreadMayDoAnythingAtAnyTime) {
    Probe probes[8];
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 4; ++seed) {
        threads.emplace_back([&probes, seed] {
            std::mt19937 random(seed);
            for (int i = 0; i < 2000; ++i) {
                Probe& probe = probes[random() % 8];
                CTimer& timer = *probe.timer;
                switch (random() % 5) {
                    case 0:
                        timer.start({&probe, &Probe::run}, random() % 3, random() % 30, 7, 5);
                        break;
                    case 1:
                        timer.setPeriodTime(random() % 50);
                        break;
                    case 2:
                        timer.enableStat(true);
                        break;
                    default:
                        timer.stop(random() % 2 == 0);
                        break;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (Probe& probe : probes) {
        probe.timer->stopAndWait();
        EXPECT_TRUE(probe.wrong == 0 && probe.inside == 0);
        const int runs = probe.runs;
        EXPECT_TRUE(probe.start(0) && probe.ran(runs + 1));
    }
}

TEST(CTimerTest, AProcessMayExitWithTimersAliveAndCallbacksUnderWay) {
    for (const char* how : {"return", "callback", "fork", "daemon"}) {
        OrbelTest::HelperProcess helper("TimerExitHelper", {how});
        EXPECT_TRUE(helper.waitForLine("leaving")) << how;
        EXPECT_EQ(helper.wait(), 0) << how;
    }
}

}  // namespace
