#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "Vantel/Orbel/Channel.h"
#include "Vantel/Orbel/EventFd.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/EventLoopThread.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Orbel;

namespace {

TEST(ReactorLogTest, TasksThatThrow) {
    const OrbelTest::LogCapture log;
    EventLoop loop;
    loop.queueInLoop([] { throw std::runtime_error("bad day"); });
    loop.queueInLoop([] { throw 1; });
    loop.queueInLoop([&loop] { loop.quit(); });
    loop.loop();
    EXPECT_EQ(log.count("]Exception in EventLoop task: bad day\n"), 1);
    EXPECT_EQ(log.count("]Unknown exception in EventLoop task\n"), 1);
}

TEST(ReactorLogTest, RefusalsOfTheSystem) {
    const OrbelTest::LogCapture log;
    EventLoop loop;
    const std::unique_ptr<FILE, int (*)(FILE*)> file(tmpfile(), fclose);
    Channel channel(&loop, fileno(file.get()));
    EXPECT_FALSE(channel.enableReading());
    EXPECT_EQ(log.count("]epoll_ctl op = ADD fd = " + std::to_string(channel.fd()) +
                        " error: Operation not permitted\n"),
              1);

    EventFd eventFd(&loop, kEventFdCounter);
    EXPECT_EQ(eventFd.read(), 0u);
    EXPECT_EQ(log.count("EventFd::"), 0) << "nothing to read is no error";
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

TEST(ReactorLogTest, LoopThreads) {
    const OrbelTest::LogCapture log;
    {
        EventLoopThread thread([](EventLoop*) { throw std::runtime_error("no luck"); }, "chatty");
        thread.startLoop()->runInLoop([&thread] { thread.stop(); });
        EXPECT_TRUE(OrbelTest::waitFor([&] { return !thread.isRunning(); }));
    }
    EXPECT_EQ(log.count("] EventLoopThread[chatty] started in thread "), 1);
    EXPECT_EQ(log.count("]EventLoopThread[chatty] init callback exception: no luck\n"), 1);
    EXPECT_EQ(log.count("] EventLoopThread[chatty] stop called from its own loop thread; "
                        "quit requested only\n"),
              1);
    EXPECT_EQ(log.count("] EventLoopThread[chatty] stopped\n"), 1);
}

}  // namespace
