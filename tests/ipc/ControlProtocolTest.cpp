#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <random>

#include "Vantel/Orbel/SharedMemBuffer.h"
#include "Vantel/Orbel/SharedMemReadChannel.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"
#include "ipc/NodeSocket.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemChannel.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemPool.h"
#include "tests/ipc/RawPeer.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/WaitFor.h"

namespace {

using namespace Vantel::Orbel;
using namespace OrbelTest;

class ControlProtocolTest : public testing::Test {
protected:
    void SetUp() override {
        mDomain->setPoolConfigs({{"pool", 256, 64, 4}});
        ASSERT_TRUE(mDomain->init(Json::objectValue));
        mNode = std::static_pointer_cast<SharedMemNodeImpl>(mDomain->createNode("node"));
        ASSERT_TRUE(mNode->init());
        mWriter = mNode->newWriteChannel(mChannelName);
        mReader = mNode->newReadChannel(mChannelName);
        ASSERT_TRUE(mWriter->init() && mReader->init());
        ASSERT_TRUE(mWriter->create({}, {}));
        ASSERT_TRUE(mReader->open([this](std::shared_ptr<SharedMemBuffer>&) { ++mSamples; }));
    }
    void TearDown() override { mDomain->deInit(); }

    UniqueFd connectToNode() { return rawConnect(nodeSocketPath(mName, "node")); }
    PipeMessage forged(unsigned int action, unsigned int poolId = 31) const {
        return PipeMessage::make(static_cast<PipeAction>(action), {0, poolId, 5},
                                 SharedMemChannel::generateChannelId(mChannelName), mNode->nodeId(),
                                 7);
    }
    /// A sample goes through and its block comes back.
    void expectThatAllWorks() {
        const int before = mSamples;
        auto sample = mWriter->allocate(16, 0);
        ASSERT_TRUE(sample);
        EXPECT_TRUE(mWriter->commit(sample));
        sample.reset();
        EXPECT_TRUE(waitFor([&] { return mSamples > before; }));
        const auto pool = mDomain->getPool(0);
        EXPECT_TRUE(waitFor([&] {
            for (unsigned int i = 0; i < pool->blockCount(); ++i) {
                if (pool->getBlockHeader(i)->status.stateWord().state != BlockState::Free) {
                    return false;
                }
            }
            return true;
        }));
    }

    LogCapture mLog;
    IpcCleanup mCleanup;
    const std::string mName = mCleanup.domain("control");
    const std::string mChannelName = mCleanup.channel("control");
    std::atomic<int> mSamples{0};
    std::shared_ptr<SharedDomainImpl> mDomain = std::make_shared<SharedDomainImpl>(mName);
    std::shared_ptr<SharedMemNodeImpl> mNode;
    std::shared_ptr<SharedMemWriteChannel> mWriter;
    std::shared_ptr<SharedMemReadChannel> mReader;
};

TEST_F(ControlProtocolTest, AnUnknownActionIsSkippedAndTheRestOfTheBatchHandled) {
    const UniqueFd peer = connectToNode();
    const PipeMessage batch[] = {forged(0), forged(3), forged(2)};
    ASSERT_EQ(rawSend(peer.get(), batch, sizeof batch), static_cast<ssize_t>(sizeof batch));
    EXPECT_TRUE(waitFor([&] { return mLog.has("Failed to find pool for block"); }));
    EXPECT_TRUE(mLog.has("unkown msg action 0"));
    EXPECT_TRUE(mLog.has("unkown msg action 3"));
    const std::vector<PipeMessage> full(16, forged(4));
    ASSERT_EQ(rawSend(peer.get(), full.data(), 16 * sizeof full[0]), 512);
    EXPECT_TRUE(waitFor([&] { return mLog.count("unkown msg action 4") == 16; }));
    EXPECT_FALSE(readable(peer.get(), 50)) << "a full batch must not close the connection";
    expectThatAllWorks();
}

TEST_F(ControlProtocolTest, ABrokenStreamIsClosedAndOnlyThat) {
    const UniqueFd good = connectToNode();
    const PipeMessage message = forged(5);
    ASSERT_EQ(rawSend(good.get(), &message, sizeof message), 32);
    ASSERT_TRUE(waitFor([&] { return mLog.has("unkown msg action 5"); }));
    for (const size_t bytes : {size_t{1}, size_t{31}}) {
        const UniqueFd bad = connectToNode();
        ASSERT_GT(rawSend(bad.get(), &message, bytes), 0);
        char byte;
        EXPECT_TRUE(readable(bad.get(), 30000));
        EXPECT_LE(recv(bad.get(), &byte, 1, 0), 0) << "still open";
    }
    EXPECT_FALSE(readable(good.get(), 0));
    EXPECT_TRUE(mLog.has("SharedMemNode handleMessage failed: Input/output error"));
    EXPECT_EQ(mNode->handleMessage(nullptr), -1);
    EXPECT_EQ(errno, ENOTCONN);
    expectThatAllWorks();
}

TEST_F(ControlProtocolTest, TenThousandForgedMessagesLeaveNothingBehind) {
    expectThatAllWorks();  // the proxies of the node to itself stand from here on
    const long before = openDescriptors();
    const unsigned int seed = 20240611;
    std::mt19937_64 random(seed);
    const auto pick = [&](auto... values) {
        const uint64_t all[] = {static_cast<uint64_t>(values)...};
        return all[random() % (sizeof all / sizeof all[0])];
    };
    UniqueFd peer = connectToNode();
    for (int i = 0; i < 10000; ++i) {
        PipeMessage message;
        message.fd = static_cast<int>(pick(-1, 0, 1, peer.get(), random()));
        message.location = LocationWord{static_cast<uint32_t>(pick(0, 1, 1, 2, 2, 3, 15)),
                                        static_cast<uint32_t>(pick(0, 0, 1, 31)),
                                        static_cast<uint32_t>(pick(0, 3, 4, 1 << 22, random()))}
                               .pack();
        message.channelId = pick(SharedMemChannel::generateChannelId(mChannelName), 0, random());
        message.writerId = pick(mNode->nodeId(), 0, random());
        message.sequence = pick(0, 1, 2, 3, 4, 5, random());
        const uint64_t bytes = pick(32, 32, 32, 32, 32, 32, 32, 32, 1, 31);
        const std::vector<int> fds(pick(0, 1, 5), peer.get());
        if (rawSend(peer.get(), &message, bytes, fds) < 0) {
            peer = connectToNode();  // closed on us, as it should
            ASSERT_TRUE(peer.valid());
        }
    }
    peer.reset();
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; }))
        << openDescriptors() << " descriptors, " << before << " before; seed " << seed;
    expectThatAllWorks();
}

}  // namespace
