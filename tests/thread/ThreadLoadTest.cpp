// A program of its own: the throttle claims SIGUSR2 for good.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <thread>

#include "Vantel/Orbel/CThread.h"
#include "tests/support/WaitFor.h"
#include "thread/CThreadLoadingController.h"

using namespace Vantel::Orbel;

namespace {

/// Microseconds of processor time that this thread has had.
int64_t cpuTimeUs() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec * 1'000'000 + time.tv_nsec / 1000;
}

int64_t spinFor(int wallMs) {
    const int64_t before = cpuTimeUs();
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(wallMs);
    while (std::chrono::steady_clock::now() < end) {
    }
    return cpuTimeUs() - before;
}

TEST(ThreadLoadTest, RefusesPercentagesAndASignalInUse) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(CThread::load(0), "Assertion");
    EXPECT_DEATH(CThread::load(101), "Assertion");
    EXPECT_DEATH((signal(SIGUSR2, [](int) {}), CThread::load(50)), "!used");

    CThread::load(100);  // of a thread that was never throttled
    struct sigaction action {};
    sigaction(SIGUSR2, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL) << "claimed the signal for nothing";
}

TEST(ThreadLoadTest, ThrottledThreadLosesItsShareUntilItLeaves) {
    int64_t freeUs = 0;
    int64_t throttledUs = 0;
    std::thread([&] {
        freeUs = spinFor(300);
        CThread::load(30);
        errno = 77;
        throttledUs = spinFor(1000);
        EXPECT_EQ(errno, 77) << "the handler must keep it";
        CThread::load(100);
        CThread::load(100);
    }).join();
    CThreadLoadingController* controller = CThreadLoadingController::instance();
    if (controller->getThreadId() < 0) {
        GTEST_SKIP() << "no right to first-in-first-out scheduling";
    }
    EXPECT_FALSE(controller->looping()) << "nobody is left to throttle";
#if !defined(__SANITIZE_THREAD__)
    EXPECT_LT(throttledUs, 600'000);
    EXPECT_GT(throttledUs, freeUs / 10) << "stands still, and not for other processes";
#endif
}

/// Threads that end while they are throttled must not be signalled any more, and the controller
/// starts and stops all the time.
TEST(ThreadLoadTest, ThreadsEndWithoutLeaving) {
    const auto work = [] {
        for (int i = 0; i < 40; ++i) {
            std::thread([i] {
                CThread::load(50);
                spinFor(i % 5);
            }).join();
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_TRUE(
        OrbelTest::waitFor([] { return CThreadLoadingController::instance()->isThreadOver(); }));
}

}  // namespace
