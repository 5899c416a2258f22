#include <random>

#include "ipc/NodeSocket.h"
#include "tests/ipc/ChannelFixture.h"
#include "tests/ipc/RawPeer.h"
#include "tests/support/OpenDescriptors.h"

namespace OrbelTest {
namespace {

/// A stranger's connection to the socket of the node "writer", which reads its own channel too.
class ControlProtocolTest : public ChannelFixture {
protected:
    void SetUp() override {
        ChannelFixture::SetUp();
        openReader("writer");
        mNode = aliveNode(*mDomain, "writer");
    }

    UniqueFd connectToNode() const { return rawConnect(nodeSocketPath(mDomainName, "writer")); }
    PipeMessage forged(unsigned int action) const {
        return PipeMessage::make(static_cast<PipeAction>(action), {0, 31, 5}, mWriter->channelId(),
                                 mNode->nodeId(), 7);
    }
    void expectThatAllWorks() {
        commit("a good one");
        EXPECT_EQ(text(mInbox.take(1).at(0)), "a good one");
        EXPECT_TRUE(allComeBack());
    }

    std::shared_ptr<SharedMemNodeImpl> mNode;
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
                                        static_cast<uint32_t>(pick(0, 7, 8, 1 << 22, random()))}
                               .pack();
        message.channelId = pick(mWriter->channelId(), 0, random());
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
}  // namespace OrbelTest
