#include "Vantel/Orbel/EventFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "Vantel/ILogger.h"
#include "Vantel/Orbel/EventLoop.h"
#include "tests/support/LogCapture.h"

using namespace Vantel::Orbel;

namespace {

TEST(EventFdTest, CounterAndSemaphoreReads) {
    EventLoop loop;
    EventFd semaphore(&loop, 3, kEventFdSemaphore);
    for (const uint64_t expected : {1u, 1u, 1u, 0u}) {
        EXPECT_EQ(semaphore.read(), expected);
    }
    EventFd counter(&loop, 3, kEventFdCounter);
    EXPECT_TRUE(counter.write(4));
    EXPECT_TRUE(counter.notify());
    EXPECT_EQ(counter.read(), 8u);
    uint64_t value = 77;
    EXPECT_FALSE(counter.tryRead(value));
    EXPECT_EQ(value, 77u) << "left alone where there is nothing to take";

    EXPECT_TRUE(counter.write(0xfffffffffffffffe));
    EXPECT_FALSE(counter.write(1)) << "would overflow";
    EXPECT_FALSE(counter.wakeupOnce());
    EXPECT_TRUE(counter.tryRead(value));
    EXPECT_EQ(value, 0xfffffffffffffffe);
    EXPECT_TRUE(counter.wakeupOnce()) << "a failed wake-up must not stay pending";
    EXPECT_EQ(counter.read(), 1u);
    EXPECT_NE(fcntl(counter.fd(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(EventFdTest, PendingWakeUpsAreOneWrite) {
    EventLoop loop;
    EventFd eventFd(&loop, kEventFdCounter);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] { EXPECT_TRUE(eventFd.wakeupOnce()); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(eventFd.read(), 1u);
    EXPECT_TRUE(eventFd.wakeupOnce());
    EXPECT_EQ(eventFd.read(), 0u);
    eventFd.resetWakeup();
    EXPECT_TRUE(eventFd.wakeupOnce());
    EXPECT_EQ(eventFd.read(), 1u);
}

TEST(EventFdTest, TheLoopHandsTheValueToTheCallback) {
    EventLoop loop;
    loop.setMode(kLoopOnce);
    EventFd eventFd(&loop, 5, kEventFdCounter);
    uint64_t got = 0;
    eventFd.setReadCallback([&got](uint64_t value) { got = value; });
    eventFd.enableReading();
    loop.loop();
    EXPECT_EQ(got, 5u);
    eventFd.disableAll();
}

TEST(EventFdTest, RefusalsOfTheSystemAreToldAndNothingToReadIsNone) {
    const OrbelTest::LogCapture log;
    EventLoop loop;
    EventFd eventFd(&loop, kEventFdCounter);
    EXPECT_EQ(eventFd.read(), 0u);
    EXPECT_EQ(log.count("EventFd::"), 0);
    const int kept = dup(eventFd.fd());
    close(eventFd.fd());
    EXPECT_FALSE(eventFd.notify());
    EXPECT_EQ(eventFd.read(), 0u);
    uint64_t value = 0;
    EXPECT_FALSE(eventFd.tryRead(value));
    ASSERT_EQ(dup2(kept, eventFd.fd()), eventFd.fd());
    close(kept);
    EXPECT_EQ(log.count("]EventFd::write() failed: Bad file descriptor\n"), 1);
    EXPECT_EQ(log.count("]EventFd::read() failed: Bad file descriptor\n"), 1);
}

TEST(EventFdTest, WithoutADescriptorEveryOperationFails) {
    EventLoop loop;
    // The sanitizer needs a descriptor when it meets a class for the first time, here the logger's.
    Vantel::ILogger::instance()->print(Vantel::ILogger::kError, "test", "first line\n");
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EventFd eventFd(&loop, 1, kEventFdCounter);
    setrlimit(RLIMIT_NOFILE, &limit);

    uint64_t value = 0;
    EXPECT_EQ(eventFd.fd(), -1);
    EXPECT_FALSE(eventFd.write(1));
    EXPECT_EQ(eventFd.read(), 0u);
    EXPECT_FALSE(eventFd.tryRead(value));
    EXPECT_FALSE(eventFd.wakeupOnce());
    eventFd.enableAll();
    eventFd.disableReading();
    eventFd.disableAll();
    EXPECT_FALSE(eventFd.isReadable());
}

}  // namespace
