#include "ipc/SharedMemChannel.h"

#include "tests/ipc/DomainFixture.h"
#include "tests/ipc/RawSegment.h"

namespace OrbelTest {
namespace {

constexpr uint64_t kDead = 0xDEAD;  // no node of the domain

class SharedMemChannelTest : public DomainFixture {
protected:
    SharedMemChannel channelOf(const std::string& node) {
        return SharedMemChannel(mName, aliveNode(*mDomain, node));
    }
    /// The status segment, set to `length` first if that is not 0.
    RawSegment raw(size_t length = 0) const {
        return RawSegment("/shmipc_channel_" + mName + "_status", length);
    }
    /// What creating the status segment of `channel` printed; it must have failed.
    static std::string refusal(SharedMemChannel& channel) {
        testing::internal::CaptureStdout();
        EXPECT_FALSE(channel.createStatusMemory());
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    const std::string mName = mCleanup.channel("orbel_channel");
    std::shared_ptr<SharedDomainImpl> mDomain = joined();
    const uint64_t mSelf = aliveNode(*mDomain, "node")->nodeId();
    SharedMemChannel mChannel = channelOf("node");
};

TEST_F(SharedMemChannelTest, AFreshSegmentHasTheBytesOfTheFormatAndASecondChannelFindsThem) {
    EXPECT_EQ(SharedMemChannel::generateChannelId("camera"), 0x757853892384c201u);
    EXPECT_FALSE(mChannel.registerReader()) << "no segment yet";
    EXPECT_FALSE(mChannel.unregisterWriter(kDead));
    ASSERT_TRUE(mChannel.createStatusMemory());
    ASSERT_TRUE(mChannel.createStatusMemory()) << "once more changes nothing";
    ASSERT_TRUE(mChannel.registerWriter());
    ASSERT_TRUE(mChannel.registerReader());
    SharedMemChannel second = channelOf("other");
    ASSERT_TRUE(second.createStatusMemory());
    ASSERT_TRUE(second.registerReader());

    RawSegment segment = raw();
    EXPECT_EQ(segment.size(), 4096u);
    EXPECT_EQ(segment.at<uint32_t>(0), 0xCAFEBABE);
    EXPECT_EQ(segment.at<uint64_t>(8), mSelf);
    EXPECT_EQ(segment.at<uint64_t>(16), 0u) << "the second writer";
    EXPECT_EQ(segment.at<uint64_t>(72), mSelf);
    EXPECT_EQ(segment.at<uint64_t>(80), aliveNode(*mDomain, "other")->nodeId());
    EXPECT_EQ(mLog.count("Initializing param shared memory for channel " + mName + "\n"), 1);
}

TEST_F(SharedMemChannelTest, TheNinthIsRefusedUntilOneHasLeftOrDied) {
    const struct {
        const char* table;
        bool (SharedMemChannel::*enter)();
        bool (SharedMemChannel::*leave)(unsigned long);
        size_t offset;
    } tables[] = {
        {"readers", &SharedMemChannel::registerReader, &SharedMemChannel::unregisterReader, 72},
        {"writers", &SharedMemChannel::registerWriter, &SharedMemChannel::unregisterWriter, 8},
    };
    ASSERT_TRUE(mChannel.createStatusMemory());
    RawSegment segment = raw();
    for (const auto& t : tables) {
        SCOPED_TRACE(t.table);
        uint64_t* const ids = &segment.at<uint64_t>(t.offset);
        for (int i = 0; i < 8; ++i) {
            EXPECT_TRUE((mChannel.*t.enter)()) << "an entry of the own node is no obstacle";
        }
        EXPECT_FALSE((mChannel.*t.enter)());

        ids[5] = kDead;
        EXPECT_TRUE((mChannel.*t.enter)()) << "without waiting for any clean-up";
        EXPECT_EQ(ids[5], mSelf);
        EXPECT_FALSE((mChannel.*t.enter)());

        EXPECT_FALSE((mChannel.*t.leave)(kDead));
        EXPECT_TRUE((mChannel.*t.leave)(mSelf)) << "one of the eight";
        EXPECT_EQ(ids[0], 0u);
        EXPECT_EQ(ids[1], mSelf);
        ids[3] = kDead;
        EXPECT_TRUE((mChannel.*t.enter)());
        EXPECT_EQ(ids[0], mSelf) << "the first entry, free or dead, in table order";
        EXPECT_EQ(ids[3], kDead);
    }
}

TEST_F(SharedMemChannelTest, ASegmentThatIsNoChannelsIsRefusedAndLeftAlone) {
    const struct {
        const char* why;
        size_t length;
        uint32_t magic;
    } cases[] = {
        {"a foreign magic", 0, 0xBADC0DE},
        {"too short by a byte", 175, 0xCAFEBABE},
        {"too short for a new one", 100, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        ASSERT_TRUE(channelOf("node").createStatusMemory());
        RawSegment segment = raw(c.length);
        segment.at<uint32_t>(0) = c.magic;
        const std::string before = segment.bytes();
        SharedMemChannel channel = channelOf("node");
        EXPECT_EQ(refusal(channel), "init status shared memory channel " + mName + " failed\n");
        EXPECT_FALSE(channel.registerReader());
        EXPECT_EQ(before, segment.bytes());
        EXPECT_TRUE(segment.remove());
    }
    EXPECT_EQ(mLog.count("]Invalid channel status magic for channel " + mName + "\n"), 3);

    SharedMemChannel slash("orbel/channel", aliveNode(*mDomain, "node"));
    EXPECT_NE(refusal(slash).find("create shm ["), std::string::npos);
    IpcCleanup::removeMutex("orbel/channel");
}

TEST_F(SharedMemChannelTest, OnlyABlockThatReadersAreDoneWithIsReported) {
    BlockHeader block{};
    block.status.writerId.store(kDead);
    block.status.state.store(StateWord{BlockState::Free, 0, 0, 5}.pack());
    const std::string refusal = "]SharedMemChannel notifyWriterDataFinished block index 0 state ";
    EXPECT_FALSE(mChannel.notifyWriterDataFinished(&block));
    EXPECT_EQ(mLog.count(refusal + "0, readerMask 0, claimMask 0, readRef 0\n"), 1);

    block.status.state.store(StateWord{BlockState::Ready, 0, 0, 6}.pack());
    block.status.storeMasks({2, 2});
    block.status.readRef.store(1);
    EXPECT_FALSE(mChannel.notifyWriterDataFinished(&block));
    EXPECT_EQ(mLog.count(refusal + "2, readerMask 2, claimMask 2, readRef 1\n"), 1);
    EXPECT_TRUE(mChannel.notifyWriterDataFinished(&block, 4)) << "moved on: nothing to report";

    const std::string failure = "]SharedMemChannel notifyWriterDataFinished notify writer failed\n";
    EXPECT_EQ(mLog.count(failure), 0) << "so far nothing was sent";
    block.status.storeMasks({});
    EXPECT_FALSE(mChannel.notifyWriterDataFinished(&block, 6)) << "its writer is not there";
    EXPECT_EQ(mLog.count(failure), 1);
    EXPECT_FALSE(mChannel.notifyWriterDataFinished(nullptr));
    EXPECT_FALSE(mChannel.notifyWriterDataFinished(nullptr, 6));
}

}  // namespace
}  // namespace OrbelTest
