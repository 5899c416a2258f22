#include "Vantel/Orbel/Channel.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "tests/net/LoopSupport.h"
#include "tests/support/LogCapture.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

class ChannelTest : public testing::Test {
protected:
    ChannelTest() {
        testing::GTEST_FLAG(death_test_style) = "threadsafe";
        channel.setReadCallback([this] { calls += 'R'; });
        channel.setWriteCallback([this] { calls += 'W'; });
        channel.setErrorCallback([this] { calls += 'E'; });
        channel.setCloseCallback([this] { calls += 'C'; });
    }
    /// The callbacks that these events run, in order.
    const std::string& dispatch(uint32_t revents) {
        calls.clear();
        channel.setRevents(revents);
        channel.handleEvent();
        return calls;
    }

    EventLoop loop;
    EventSource source{loop};
    Channel& channel = source.channel;
    std::string calls;
};

TEST_F(ChannelTest, DispatchOrderAndTheHangUpRule) {
    const struct {
        uint32_t revents;
        const char* calls;
    } cases[] = {
        {POLLHUP | POLLERR | POLLOUT, "C"},
        {POLLHUP | POLLIN, "R"},
        {POLLHUP | POLLIN | POLLOUT | POLLERR, "ERW"},
        {POLLPRI, "R"},
        {EPOLLRDHUP, "R"},
        {POLLNVAL, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(dispatch(c.revents), c.calls) << c.revents;
    }
    channel.setErrorCallback([this] {
        calls += 'E';
        channel.setRevents(POLLOUT);
    });
    EXPECT_EQ(dispatch(POLLERR | POLLIN), "EW") << "looks again after each callback";
    channel.setErrorCallback({});
    channel.setReadCallback({});
    EXPECT_EQ(dispatch(POLLERR | POLLIN | POLLOUT), "W") << "an empty callback is skipped";
}

TEST_F(ChannelTest, MaskAndRegistrationGoTogether) {
    const struct {
        std::function<bool(Channel&)> change;
        int state;
        const char* events;
    } steps[] = {
        {&Channel::disableAll, -1, ""},  // an empty mask does not reach the poller
        {&Channel::enableReading, 1, "IN "},
        {&Channel::enableWriting, 1, "IN OUT "},
        {&Channel::disableReading, 1, "OUT "},
        {&Channel::disableAll, 2, ""},
        {&Channel::disableReading, 1, ""},  // goes back to the kernel with no events
        {&Channel::disableReading, 2, ""},
        {&Channel::enableReading, 1, "IN "},  // must be added anew, not modified
        {&Channel::disableAll, 2, ""},
        {&Channel::remove, -1, ""},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(&step - steps);
        EXPECT_TRUE(step.change(channel));
        EXPECT_EQ(channel.state(), step.state);
        EXPECT_EQ(channel.eventsToString(), step.events);
        EXPECT_EQ(channel.isAddedToLoop(), step.state != -1);
    }
}

TEST_F(ChannelTest, ARefusedChangeLeavesAllAsItWas) {
    const LogCapture log;
    const std::unique_ptr<FILE, int (*)(FILE*)> file(tmpfile(), fclose);  // epoll takes no files
    Channel refused(&loop, fileno(file.get()));
    EXPECT_FALSE(refused.enableReading());
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(log.count("]epoll_ctl op = ADD fd = " + std::to_string(refused.fd()) +
                        " error: Operation not permitted\n"),
              1);
    EXPECT_FALSE(refused.isReading() || refused.isAddedToLoop());
    EXPECT_EQ(refused.state(), -1);

    ASSERT_TRUE(channel.enableReading());
    const UniqueFd kept(dup(channel.fd()));
    source.fd.reset();  // too early
    EXPECT_FALSE(channel.disableAll());
    EXPECT_TRUE(channel.isReading() && channel.isAddedToLoop());
    source.fd.reset(dup2(kept.get(), channel.fd()));  // the same file under the same number
}

TEST_F(ChannelTest, ATiedOwnerLivesThroughItsCallbackAndIsMissedAfter) {
    auto owner = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = owner;
    channel.tie(owner);
    channel.setReadCallback([&] {
        owner.reset();
        EXPECT_FALSE(watch.expired());
    });
    EXPECT_EQ(dispatch(POLLIN | POLLOUT), "W");
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(dispatch(POLLOUT), "");
}

TEST_F(ChannelTest, BreachesOfTheRulesEndTheProcess) {
    EXPECT_DEATH(channel.remove(), "mInternal->mAddedToLoop");
    EXPECT_DEATH(Channel(&loop, -1).enableReading(), "channel->fd\\(\\) >= 0");
    EXPECT_DEATH(std::thread([this] { channel.enableReading(); }).join(), "isInLoopThread\\(\\)");
    ASSERT_TRUE(channel.enableReading());
    EXPECT_DEATH(channel.remove(), "channel->isNoneEvent\\(\\)");
    EXPECT_DEATH(Channel(&loop, channel.fd()).enableReading(),
                 "mChannels.find\\(fd\\) == mChannels.end\\(\\)");
    EXPECT_DEATH(channel.~Channel(), "!mInternal->mAddedToLoop");
}

}  // namespace
