#include "ipc/SharedMemChannel.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <functional>
#include <iterator>
#include <memory>

#include "frame/base/NamedSegment.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/LogCapture.h"

namespace Vantel::Orbel {
namespace {

constexpr uint64_t kDead = 0xDEAD;  // no node of the domain

class SharedMemChannelTest : public testing::Test {
protected:
    SharedMemChannelTest() {
        EXPECT_TRUE(mDomain->init(Json::Value()));
        mNode = newNode("node");
        mChannel = channelOf(mNode);
    }
    ~SharedMemChannelTest() override {
        mChannel.reset();
        mNode.reset();
        mDomain->deInit();
    }

    std::shared_ptr<SharedMemNodeImpl> newNode(const std::string& name) {
        auto node = std::dynamic_pointer_cast<SharedMemNodeImpl>(mDomain->createNode(name));
        EXPECT_TRUE(node != nullptr && node->init());
        return node;
    }
    std::unique_ptr<SharedMemChannel> channelOf(const std::shared_ptr<SharedMemNodeImpl>& node) {
        return std::make_unique<SharedMemChannel>(mName, node);
    }
    /// The status segment as a stranger sees it; cut to `length` first if that is not 0.
    NamedSegment stranger(size_t length = 0) const {
        NamedSegment segment("/shmipc_channel_" + mName + "_status");
        EXPECT_TRUE(segment.open(0644));
        EXPECT_TRUE(length == 0 || segment.resize(length));
        EXPECT_TRUE(segment.map(static_cast<size_t>(segment.length())));
        return segment;
    }
    static uint64_t* ids(const NamedSegment& segment, size_t offset) {
        return reinterpret_cast<uint64_t*>(static_cast<char*>(segment.address()) + offset);
    }
    static uint64_t* writers(const NamedSegment& segment) { return ids(segment, 8); }
    static uint64_t* readers(const NamedSegment& segment) { return ids(segment, 72); }

    OrbelTest::IpcCleanup mCleanup;
    const std::string mName = mCleanup.channel("orbel_channel");
    OrbelTest::LogCapture mLog;
    std::shared_ptr<SharedDomainImpl> mDomain =
        std::make_shared<SharedDomainImpl>(mCleanup.domain("orbel_domain"));
    std::shared_ptr<SharedMemNodeImpl> mNode;
    std::unique_ptr<SharedMemChannel> mChannel;
};

TEST_F(SharedMemChannelTest, TheIdIsTheSameInEveryBuild) {
    EXPECT_EQ(SharedMemChannel::generateChannelId("camera"), 0x757853892384c201u);
    EXPECT_EQ(SharedMemChannel::generateChannelId(mName),
              std::hash<std::string>{}("/shmipc/channel/" + mName));
}

TEST_F(SharedMemChannelTest, AFreshSegmentHasTheBytesOfTheFormatAndASecondChannelFindsThem) {
    EXPECT_FALSE(mChannel->registerReader()) << "no segment yet";
    EXPECT_FALSE(mChannel->unregisterWriter(kDead));
    ASSERT_TRUE(mChannel->createStatusMemory());
    ASSERT_TRUE(mChannel->createStatusMemory()) << "once more changes nothing";
    ASSERT_TRUE(mChannel->registerWriter());
    ASSERT_TRUE(mChannel->registerReader());
    const auto other = newNode("other");
    const auto second = channelOf(other);
    ASSERT_TRUE(second->createStatusMemory());
    ASSERT_TRUE(second->registerReader());

    const NamedSegment segment = stranger();
    EXPECT_EQ(segment.size(), 4096u);
    EXPECT_EQ(*static_cast<uint32_t*>(segment.address()), 0xCAFEBABE);
    EXPECT_EQ(writers(segment)[0], mNode->nodeId());
    EXPECT_EQ(readers(segment)[0], mNode->nodeId());
    EXPECT_EQ(readers(segment)[1], other->nodeId());
    EXPECT_EQ(writers(segment)[1], 0u);
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
    ASSERT_TRUE(mChannel->createStatusMemory());
    const NamedSegment segment = stranger();
    const uint64_t self = mNode->nodeId();
    for (const auto& t : tables) {
        SCOPED_TRACE(t.table);
        SharedMemChannel& channel = *mChannel;
        uint64_t* table = ids(segment, t.offset);
        for (int i = 0; i < 8; ++i) {
            EXPECT_TRUE((channel.*t.enter)()) << "an entry of the own node is no obstacle";
        }
        EXPECT_FALSE((channel.*t.enter)());

        table[5] = kDead;
        EXPECT_TRUE((channel.*t.enter)()) << "without waiting for any clean-up";
        EXPECT_EQ(table[5], self);
        EXPECT_FALSE((channel.*t.enter)());

        EXPECT_FALSE((channel.*t.leave)(kDead));
        EXPECT_TRUE((channel.*t.leave)(self)) << "one of the eight";
        EXPECT_EQ(table[0], 0u);
        EXPECT_EQ(table[1], self);
        table[3] = kDead;
        EXPECT_TRUE((channel.*t.enter)());
        EXPECT_EQ(table[0], self) << "the first entry, free or dead, in table order";
        EXPECT_EQ(table[3], kDead);
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
        ASSERT_TRUE(channelOf(mNode)->createStatusMemory());
        const NamedSegment segment = stranger(c.length);
        *static_cast<uint32_t*>(segment.address()) = c.magic;
        const std::string before(static_cast<const char*>(segment.address()), segment.size());
        const auto channel = channelOf(mNode);
        testing::internal::CaptureStdout();
        EXPECT_FALSE(channel->createStatusMemory());
        std::fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "init status shared memory channel " + mName + " failed\n");
        EXPECT_FALSE(channel->registerReader());
        EXPECT_EQ(before, std::string(static_cast<const char*>(segment.address()), segment.size()));
        EXPECT_TRUE(segment.unlink());
    }
    EXPECT_EQ(mLog.count("]Invalid channel status magic for channel " + mName + "\n"), 3);

    SharedMemChannel slash(mCleanup.channel("orbel/channel"), mNode);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(slash.createStatusMemory());
    std::fflush(stdout);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("create shm ["), std::string::npos);
}

TEST_F(SharedMemChannelTest, OnlyABlockThatReadersAreDoneWithIsReported) {
    BlockHeader block{};
    block.status.writerId.store(kDead);
    block.status.state.store(StateWord{BlockState::Free, 0, 0, 5}.pack());
    const std::string refusal = "]SharedMemChannel notifyWriterDataFinished block index 0 state ";
    EXPECT_FALSE(mChannel->notifyWriterDataFinished(&block));
    EXPECT_EQ(mLog.count(refusal + "0, readerMask 0, claimMask 0, readRef 0\n"), 1);

    block.status.state.store(StateWord{BlockState::Ready, 0, 0, 6}.pack());
    block.status.storeMasks({2, 2});
    block.status.readRef.store(1);
    EXPECT_FALSE(mChannel->notifyWriterDataFinished(&block));
    EXPECT_EQ(mLog.count(refusal + "2, readerMask 2, claimMask 2, readRef 1\n"), 1);
    EXPECT_TRUE(mChannel->notifyWriterDataFinished(&block, 4)) << "moved on: nothing to report";

    const std::string failure = "]SharedMemChannel notifyWriterDataFinished notify writer failed\n";
    EXPECT_EQ(mLog.count(failure), 0) << "so far nothing was sent";
    block.status.storeMasks({});
    EXPECT_FALSE(mChannel->notifyWriterDataFinished(&block, 6)) << "its writer is not there";
    EXPECT_EQ(mLog.count(failure), 1);
    EXPECT_FALSE(mChannel->notifyWriterDataFinished(nullptr));
    EXPECT_FALSE(mChannel->notifyWriterDataFinished(nullptr, 6));
}

}  // namespace
}  // namespace Vantel::Orbel
