// A program of its own: the throttle claims SIGUSR2 for good.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "Vantel/Orbel/CThread.h"
#include "tests/support/WaitFor.h"
#include "thread/CThreadLoadingController.h"

using namespace Vantel::Orbel;
using OrbelTest::waitFor;

namespace {

using Clock = std::chrono::steady_clock;

/// Microseconds of processor time that this thread has had.
int64_t cpuTimeUs() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec * 1'000'000 + time.tv_nsec / 1000;
}

int64_t spinFor(std::chrono::milliseconds wall) {
    const int64_t before = cpuTimeUs();
    const auto end = Clock::now() + wall;
    while (Clock::now() < end) {
    }
    return cpuTimeUs() - before;
}

TEST(ThreadLoadDeathTest, RefusesPercentagesAndASignalInUse) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(CThread::load(0), "Assertion");
    EXPECT_DEATH(CThread::load(101), "Assertion");
    EXPECT_DEATH(
        {
            signal(SIGUSR2, [](int) {});
            CThread::load(50);
        },
        "!used");
}

TEST(ThreadLoadTest, HundredPercentOfAThreadThatWasNeverThrottled) {
    CThread::load(100);
    struct sigaction action {};
    sigaction(SIGUSR2, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL) << "claimed the signal for nothing";
}

TEST(ThreadLoadTest, ThrottledThreadLosesItsShareUntilItLeaves) {
    int64_t throttledUs = 0;
    std::thread worker([&] {
        CThread::load(30);
        errno = 77;
        throttledUs = spinFor(std::chrono::milliseconds(1000));
        EXPECT_EQ(errno, 77) << "the handler must keep it";
        CThread::load(100);
        CThread::load(100);
    });
    worker.join();
    CThreadLoadingController* controller = CThreadLoadingController::instance();
    if (controller->getThreadId() < 0) {
        GTEST_SKIP() << "no right to first-in-first-out scheduling";
    }
    EXPECT_FALSE(controller->looping()) << "nobody is left to throttle";
#if !defined(__SANITIZE_THREAD__)
    EXPECT_LT(throttledUs, 600'000);
    EXPECT_GT(throttledUs, 50'000);
#endif
}

/// Threads that end while they are throttled must not be signalled any more, and the controller
/// starts and stops all the time.
TEST(ThreadLoadTest, ThreadsEndWithoutLeaving) {
    std::atomic<int> ended{0};
    const auto work = [&] {
        for (int i = 0; i < 40; ++i) {
            std::thread([&] {
                CThread::load(50);
                spinFor(std::chrono::milliseconds(i % 5));
                ++ended;
            }).join();
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(ended, 80);
    EXPECT_TRUE(waitFor([] { return CThreadLoadingController::instance()->isThreadOver(); }));
}

}  // namespace
