#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <deque>
#include <optional>
#include <string>

#include "Vantel/Orbel/SelectPoller.h"
#include "tests/net/LoopSupport.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

TEST(EpollPollerTest, TheEventRoomDoublesWheneverAPollFilledIt) {
    EventLoop loop;
    loop.setMode(kLoopOnce);
    std::deque<EventSource> sources;
    int events = 0;
    for (int i = 0; i < 100; ++i) {
        Channel& channel = sources.emplace_back(loop, 1).channel;
        channel.setReadCallback([&events] { ++events; });
        ASSERT_TRUE(channel.enableReading());
    }
    for (const int expected : {16, 32, 64, 100, 100}) {
        events = 0;
        loop.loop();
        EXPECT_EQ(events, expected);
    }
}

TEST(EpollPollerTest, AChannelRemovedByAnotherInTheSameIterationGetsNoEvent) {
    EventLoop loop;
    loop.setMode(kLoopOnce);
    std::array<std::optional<EventSource>, 5> sources;
    int events = 0;
    for (auto& source : sources) {
        Channel& channel = source.emplace(loop, 1u).channel;
        channel.setReadCallback([&] {
            ++events;
            for (auto& other : sources) {
                &other == &source ? void(source->takeOut()) : other.reset();
            }
        });
        ASSERT_TRUE(channel.enableReading());
    }
    loop.loop();
    EXPECT_EQ(events, 1);
}

class SelectPollerTest : public testing::Test {
protected:
    SelectPollerTest() { testing::internal::CaptureStdout(); }
    ~SelectPollerTest() override { testing::internal::GetCapturedStdout(); }

    EventLoop loop;
    SelectPoller poller{&loop};
    Poller::ChannelList active;
};

TEST_F(SelectPollerTest, OneReadyDescriptorReportsEveryRegisteredChannelWithAnError) {
    EventSource quiet(loop);
    EventSource ready(loop, 1);
    std::string calls;
    for (EventSource* source : {&quiet, &ready}) {
        source->channel.setErrorCallback([&calls] { calls += 'E'; });
        source->channel.setReadCallback([&calls] { calls += 'R'; });
    }
    ASSERT_TRUE(ready.channel.enableReading());  // in the loop's poller: it sets the mask
    ready.channel.setState(-1);
    ASSERT_TRUE(poller.updateChannel(&quiet.channel) && poller.updateChannel(&ready.channel));
    poller.poll(-1, &active);
    ASSERT_EQ(active, (Poller::ChannelList{&quiet.channel, &ready.channel}));
    for (Channel* channel : active) {
        channel->handleEvent();
    }
    EXPECT_EQ(calls, "EER");
}

TEST_F(SelectPollerTest, TakesDescriptor1023AndRefuses1024) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < 1025) {
        GTEST_SKIP() << "only " << limit.rlim_cur << " descriptors allowed";
    }
    const EventSource source(loop);
    const UniqueFd last(dup3(source.fd.get(), 1023, O_CLOEXEC));
    const UniqueFd beyond(dup3(source.fd.get(), 1024, O_CLOEXEC));
    Channel lastChannel(&loop, last.get());
    Channel beyondChannel(&loop, beyond.get());
    Channel negative(&loop, -1);
    EXPECT_TRUE(poller.updateChannel(&lastChannel));
    EXPECT_FALSE(poller.updateChannel(&beyondChannel));
    EXPECT_FALSE(poller.updateChannel(&negative));
    EXPECT_EQ(beyondChannel.state(), -1);
    EXPECT_TRUE(poller.hasChannel(&lastChannel));
    Channel twin(&loop, last.get());
    EXPECT_FALSE(poller.hasChannel(&twin) || poller.hasChannel(&negative));
    poller.poll(0, &active);
    EXPECT_TRUE(active.empty());
    EXPECT_TRUE(poller.removeChannel(&lastChannel));
    EXPECT_EQ(lastChannel.state(), -1);
}

TEST_F(SelectPollerTest, TracesEachOperation) {
    EventSource source(loop);
    poller.updateChannel(&source.channel);
    poller.poll(1, &active);
    poller.removeChannel(&source.channel);
    const std::string fd = std::to_string(source.fd.get());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "SelectPoller::updateChannel fd = " + fd +
                  " events = 0\nSelectPoller::poll() with 1 channels\n"
                  "SelectPoller::poll() timeout\nSelectPoller::removeChannel fd = " +
                  fd + "\n");
    testing::internal::CaptureStdout();
}

}  // namespace
