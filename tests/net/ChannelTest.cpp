#include "Vantel/Orbel/Channel.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "Vantel/Orbel/EventLoop.h"
#include "frame/base/UniqueFd.h"
#include "tests/support/LogCapture.h"

using namespace Vantel::Orbel;

namespace {

class ChannelTest : public testing::Test {
protected:
    ChannelTest() {
        testing::GTEST_FLAG(death_test_style) = "threadsafe";
        mChannel.setReadCallback([this] { mCalls += 'R'; });
        mChannel.setWriteCallback([this] { mCalls += 'W'; });
        mChannel.setErrorCallback([this] { mCalls += 'E'; });
        mChannel.setCloseCallback([this] { mCalls += 'C'; });
    }

    void takeOut() {
        mChannel.disableAll();
        mChannel.remove();
    }

    EventLoop mLoop;
    UniqueFd mFd{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    Channel mChannel{&mLoop, mFd.get()};
    std::string mCalls;
};

TEST_F(ChannelTest, DispatchOrderAndTheHangUpRule) {
    const struct {
        uint32_t revents;
        const char* calls;
    } cases[] = {
        {POLLHUP, "C"},
        {POLLHUP | POLLERR | POLLOUT, "C"},
        {POLLHUP | POLLIN, "R"},
        {POLLHUP | POLLIN | POLLOUT | POLLERR, "ERW"},
        {POLLPRI, "R"},
        {EPOLLRDHUP, "R"},
        {POLLOUT, "W"},
        {POLLNVAL, ""},
        {0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.revents);
        mCalls.clear();
        mChannel.setRevents(c.revents);
        mChannel.handleEvent();
        EXPECT_EQ(mCalls, c.calls);
    }
}

TEST_F(ChannelTest, DispatchLooksAgainAfterEachCallback) {
    mChannel.setErrorCallback([this] {
        mCalls += 'E';
        mChannel.setRevents(POLLOUT);
    });
    mChannel.setRevents(POLLERR | POLLIN);
    mChannel.handleEvent();
    EXPECT_EQ(mCalls, "EW");

    mCalls.clear();
    mChannel.setErrorCallback({});
    mChannel.setReadCallback({});
    mChannel.setRevents(POLLERR | POLLIN | POLLOUT);
    mChannel.handleEvent();
    EXPECT_EQ(mCalls, "W") << "an empty callback is skipped";
}

TEST_F(ChannelTest, MaskAndRegistrationGoTogether) {
    EXPECT_TRUE(mChannel.disableAll());
    EXPECT_FALSE(mChannel.isAddedToLoop()) << "an empty mask must not reach the poller";
    EXPECT_EQ(mChannel.state(), -1);

    EXPECT_TRUE(mChannel.enableReading());
    EXPECT_TRUE(mChannel.enableWriting());
    EXPECT_EQ(mChannel.state(), 1);
    EXPECT_EQ(mChannel.eventsToString(), "IN OUT ");
    EXPECT_TRUE(mChannel.disableReading());
    EXPECT_FALSE(mChannel.isReading());
    EXPECT_TRUE(mChannel.isWriting());

    EXPECT_TRUE(mChannel.disableAll());
    EXPECT_EQ(mChannel.state(), 2);
    EXPECT_TRUE(mChannel.isAddedToLoop());
    EXPECT_TRUE(mChannel.disableReading()) << "goes back to the kernel with no events";
    EXPECT_EQ(mChannel.state(), 1);
    EXPECT_TRUE(mChannel.disableReading());
    EXPECT_EQ(mChannel.state(), 2);
    EXPECT_TRUE(mChannel.enableReading()) << "must be added anew, not modified";
    EXPECT_EQ(mChannel.state(), 1);

    takeOut();
    EXPECT_FALSE(mChannel.isAddedToLoop());
    EXPECT_EQ(mChannel.state(), -1);
}

TEST_F(ChannelTest, ARefusedChangeLeavesTheMaskAsItWas) {
    const OrbelTest::LogCapture log;
    const std::unique_ptr<FILE, int (*)(FILE*)> file(tmpfile(), fclose);  // epoll takes no files
    Channel channel(&mLoop, fileno(file.get()));
    EXPECT_FALSE(channel.enableReading());
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(log.count("]epoll_ctl op = ADD fd = " + std::to_string(channel.fd()) +
                        " error: Operation not permitted\n"),
              1);
    EXPECT_FALSE(channel.isReading());
    EXPECT_FALSE(channel.isAddedToLoop());
    EXPECT_EQ(channel.state(), -1);
}

TEST_F(ChannelTest, ADescriptorClosedTooEarlyKeepsTheChannelAdded) {
    ASSERT_TRUE(mChannel.enableReading());
    const int kept = dup(mFd.get());
    mFd.reset();
    EXPECT_FALSE(mChannel.disableAll());
    EXPECT_TRUE(mChannel.isReading());
    ASSERT_EQ(dup2(kept, mChannel.fd()), mChannel.fd());  // the same file under the same number
    mFd.reset(mChannel.fd());
    close(kept);
    takeOut();
}

TEST_F(ChannelTest, ATiedOwnerLivesThroughItsCallbackAndIsMissedAfter) {
    auto owner = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = owner;
    mChannel.tie(owner);
    mChannel.setReadCallback([&] {
        owner.reset();
        EXPECT_FALSE(watch.expired());
        mCalls += 'R';
    });
    mChannel.setRevents(POLLIN | POLLOUT);
    mChannel.handleEvent();
    EXPECT_EQ(mCalls, "RW");
    EXPECT_TRUE(watch.expired());
    mChannel.handleEvent();
    EXPECT_EQ(mCalls, "RW");
}

TEST_F(ChannelTest, BreachesOfTheRulesEndTheProcess) {
    EXPECT_DEATH(mChannel.remove(), "mInternal->mAddedToLoop");
    EXPECT_DEATH(
        {
            Channel channel(&mLoop, eventfd(0, 0));
            channel.enableReading();
        },
        "!mInternal->mAddedToLoop");
    EXPECT_DEATH(
        {
            mChannel.enableReading();
            mChannel.remove();
        },
        "channel->isNoneEvent\\(\\)");
    EXPECT_DEATH(
        {
            mChannel.enableReading();
            Channel second(&mLoop, mFd.get());
            second.enableReading();
        },
        "mChannels.find\\(fd\\) == mChannels.end\\(\\)");
    EXPECT_DEATH(std::thread([this] { mChannel.enableReading(); }).join(), "isInLoopThread\\(\\)");
    EXPECT_DEATH(Channel(&mLoop, -1).enableReading(), "channel->fd\\(\\) >= 0");
}

}  // namespace
