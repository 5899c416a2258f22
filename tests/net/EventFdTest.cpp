#include "Vantel/Orbel/EventFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "Vantel/ILogger.h"
#include "Vantel/Orbel/EventLoop.h"
#include "frame/base/UniqueFd.h"
#include "tests/support/LogCapture.h"

using namespace Vantel::Orbel;

namespace {

class EventFdTest : public testing::Test {
protected:
    EventLoop loop;
    EventFd eventFd{&loop, 3, kEventFdCounter};
    uint64_t value = 77;
};

TEST_F(EventFdTest, CounterAndSemaphoreReads) {
    EventFd semaphore(&loop, 3, kEventFdSemaphore);
    for (const uint64_t expected : {1u, 1u, 1u, 0u}) {
        EXPECT_EQ(semaphore.read(), expected);
    }
    EXPECT_TRUE(eventFd.write(4));
    EXPECT_TRUE(eventFd.notify());
    EXPECT_EQ(eventFd.read(), 8u);
    EXPECT_FALSE(eventFd.tryRead(value));
    EXPECT_EQ(value, 77u) << "left alone where there is nothing to take";

    EXPECT_TRUE(eventFd.write(0xfffffffffffffffe));
    EXPECT_FALSE(eventFd.write(1)) << "would overflow";
    EXPECT_FALSE(eventFd.wakeupOnce());
    EXPECT_TRUE(eventFd.tryRead(value));
    EXPECT_EQ(value, 0xfffffffffffffffe);
    EXPECT_TRUE(eventFd.wakeupOnce()) << "a failed wake-up must not stay pending";
    EXPECT_EQ(eventFd.read(), 1u);
    EXPECT_NE(fcntl(eventFd.fd(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(EventFdTest, PendingWakeUpsAreOneWrite) {
    eventFd.read();
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

TEST_F(EventFdTest, TheLoopHandsTheValueToTheCallback) {
    loop.setMode(kLoopOnce);
    eventFd.setReadCallback([this](uint64_t got) { value = got; });
    eventFd.enableReading();
    loop.loop();
    EXPECT_EQ(value, 3u);
}

TEST_F(EventFdTest, RefusalsOfTheSystemAreToldAndNothingToReadIsNone) {
    const OrbelTest::LogCapture log;
    EXPECT_EQ(eventFd.read(), 3u);
    EXPECT_EQ(eventFd.read(), 0u);
    EXPECT_FALSE(log.has("EventFd::"));
    const UniqueFd kept(dup(eventFd.fd()));
    close(eventFd.fd());
    EXPECT_FALSE(eventFd.notify());
    EXPECT_EQ(eventFd.read(), 0u);
    EXPECT_FALSE(eventFd.tryRead(value));
    ASSERT_EQ(dup2(kept.get(), eventFd.fd()), eventFd.fd());
    EXPECT_EQ(log.count("]EventFd::write() failed: Bad file descriptor\n"), 1);
    EXPECT_EQ(log.count("]EventFd::read() failed: Bad file descriptor\n"), 1);
}

TEST_F(EventFdTest, WithoutADescriptorEveryOperationFails) {
    // The sanitizer needs a descriptor when it meets a class for the first time, here the logger's.
    Vantel::ILogger::instance()->print(Vantel::ILogger::kError, "test", "first line\n");
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EventFd without(&loop, 1, kEventFdCounter);
    setrlimit(RLIMIT_NOFILE, &limit);

    EXPECT_EQ(without.fd(), -1);
    EXPECT_FALSE(without.write(1) || without.wakeupOnce() || without.tryRead(value));
    EXPECT_EQ(without.read(), 0u);
    without.enableAll();
    without.disableReading();
    without.disableAll();
    EXPECT_FALSE(without.isReadable());
}

}  // namespace
