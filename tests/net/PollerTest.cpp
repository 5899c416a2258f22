#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Vantel/Orbel/Channel.h"
#include "Vantel/Orbel/EpollPoller.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/SelectPoller.h"
#include "frame/base/UniqueFd.h"

using namespace Vantel::Orbel;

namespace {

/// An eventfd with a channel that is registered with `poller` alone, not with its loop's.
class Source {
public:
    Source(EventLoop& loop, Poller& poller, unsigned int count)
        : mPoller(poller),
          mFd(eventfd(count, EFD_CLOEXEC | EFD_NONBLOCK)),
          mChannel(&loop, mFd.get()) {
        poller.updateChannel(&mChannel);
    }
    ~Source() { mPoller.removeChannel(&mChannel); }

    Channel& channel() { return mChannel; }
    int fd() const { return mFd.get(); }

private:
    Poller& mPoller;
    UniqueFd mFd;
    Channel mChannel;
};

TEST(EpollPollerTest, TheEventRoomDoublesWheneverAPollFilledIt) {
    EventLoop loop;
    loop.setMode(kLoopOnce);
    std::vector<UniqueFd> fds;
    std::vector<std::unique_ptr<Channel>> channels;
    int events = 0;
    for (int i = 0; i < 100; ++i) {
        fds.emplace_back(eventfd(1, EFD_CLOEXEC));
        channels.push_back(std::make_unique<Channel>(&loop, fds.back().get()));
        channels.back()->setReadCallback([&events] { ++events; });
        ASSERT_TRUE(channels.back()->enableReading());
    }
    for (const int expected : {16, 32, 64, 100, 100}) {
        events = 0;
        loop.loop();
        EXPECT_EQ(events, expected);
    }
    for (const auto& channel : channels) {
        channel->disableAll();
        channel->remove();
    }
}

TEST(EpollPollerTest, AChannelRemovedByAnotherInTheSameIterationGetsNoEvent) {
    EventLoop loop;
    loop.setMode(kLoopOnce);
    std::vector<UniqueFd> fds;
    std::vector<std::unique_ptr<Channel>> channels;
    int events = 0;
    for (int i = 0; i < 5; ++i) {
        fds.emplace_back(eventfd(1, EFD_CLOEXEC));
        channels.push_back(std::make_unique<Channel>(&loop, fds.back().get()));
        channels.back()->setReadCallback([&, i] {
            ++events;
            for (int other = 0; other < 5; ++other) {
                if (other != i) {
                    channels[static_cast<size_t>(other)]->disableAll();
                    channels[static_cast<size_t>(other)]->remove();
                    channels[static_cast<size_t>(other)].reset();
                }
            }
            channels[static_cast<size_t>(i)]->disableAll();
            channels[static_cast<size_t>(i)]->remove();
        });
        ASSERT_TRUE(channels.back()->enableReading());
    }
    loop.loop();
    EXPECT_EQ(events, 1);
}

TEST(EpollPollerTest, HasChannelMeansThisVeryChannel) {
    EventLoop loop;
    EpollPoller poller(&loop);
    const UniqueFd fd(eventfd(0, EFD_CLOEXEC));
    Channel channel(&loop, fd.get());
    Channel twin(&loop, fd.get());
    Channel nowhere(&loop, -1);
    EXPECT_FALSE(poller.hasChannel(&channel));
    ASSERT_TRUE(poller.updateChannel(&channel));
    EXPECT_TRUE(poller.hasChannel(&channel));
    EXPECT_FALSE(poller.hasChannel(&twin));
    EXPECT_FALSE(poller.hasChannel(&nowhere));
    ASSERT_TRUE(poller.removeChannel(&channel));
    EXPECT_FALSE(poller.hasChannel(&channel));
}

class SelectPollerTest : public testing::Test {
protected:
    SelectPollerTest() { testing::internal::CaptureStdout(); }
    ~SelectPollerTest() override { testing::internal::GetCapturedStdout(); }

    EventLoop mLoop;
    SelectPoller mPoller{&mLoop};
    Poller::ChannelList mActive;
};

TEST_F(SelectPollerTest, OneReadyDescriptorReportsEveryRegisteredChannelWithAnError) {
    Source quiet(mLoop, mPoller, 0);
    Source ready(mLoop, mPoller, 1);
    mPoller.poll(0, &mActive);
    EXPECT_TRUE(mActive.empty()) << "nobody asked for reading yet";

    // The interest reaches this poller by hand: a channel's own calls go to its loop.
    ready.channel().setState(-1);
    ASSERT_TRUE(ready.channel().enableReading());
    mPoller.updateChannel(&ready.channel());
    std::string calls;
    for (Source* source : {&quiet, &ready}) {
        source->channel().setErrorCallback([&calls] { calls += 'E'; });
        source->channel().setReadCallback([&calls] { calls += 'R'; });
    }
    mPoller.poll(-1, &mActive);
    ASSERT_EQ(mActive, (Poller::ChannelList{&quiet.channel(), &ready.channel()}));
    for (Channel* channel : mActive) {
        channel->handleEvent();
    }
    EXPECT_EQ(calls, "EER");
    ready.channel().disableAll();
    ready.channel().remove();
    ready.channel().setState(1);
}

TEST_F(SelectPollerTest, TakesDescriptor1023AndRefuses1024) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < 1025) {
        GTEST_SKIP() << "only " << limit.rlim_cur << " descriptors allowed";
    }
    const UniqueFd source(eventfd(0, EFD_CLOEXEC));
    const UniqueFd last(dup3(source.get(), 1023, O_CLOEXEC));
    const UniqueFd beyond(dup3(source.get(), 1024, O_CLOEXEC));
    Channel lastChannel(&mLoop, last.get());
    Channel beyondChannel(&mLoop, beyond.get());
    Channel negative(&mLoop, -1);
    EXPECT_TRUE(mPoller.updateChannel(&lastChannel));
    EXPECT_FALSE(mPoller.updateChannel(&beyondChannel));
    EXPECT_FALSE(mPoller.updateChannel(&negative));
    EXPECT_EQ(beyondChannel.state(), -1);
    mPoller.poll(0, &mActive);
    EXPECT_TRUE(mPoller.removeChannel(&lastChannel));
    EXPECT_EQ(lastChannel.state(), -1);
}

TEST_F(SelectPollerTest, TracesEachOperation) {
    std::string prefix;
    {
        Source source(mLoop, mPoller, 0);
        const std::string fd = std::to_string(source.fd());
        mPoller.poll(1, &mActive);
        prefix = "SelectPoller::updateChannel fd = " + fd +
                 " events = 0\nSelectPoller::poll() with 1 channels\n"
                 "SelectPoller::poll() timeout\nSelectPoller::removeChannel fd = " +
                 fd + "\n";
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), prefix);
    testing::internal::CaptureStdout();
}

}  // namespace
