#include <filesystem>
#include <thread>

#include "Vantel/Orbel/SharedMemReadChannel.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"
#include "ipc/NodeSocket.h"
#include "ipc/SharedMemReaderProxy.h"
#include "tests/ipc/DomainFixture.h"
#include "tests/ipc/RawPeer.h"
#include "tests/support/OpenDescriptors.h"

namespace OrbelTest {
namespace {

class SharedMemNodeTest : public DomainFixture {
protected:
    NodeState stateOf(const SharedMemNodeImpl& node) const {
        return segment()->node(node.slot()).state.load();
    }
};

TEST_F(SharedMemNodeTest, InitOpensTheSocketAndMakesTheNodeKnown) {
    const auto domain = joined();
    const long descriptors = openDescriptors();
    const auto node = newNode(*domain, "n");
    const std::string path = nodeSocketPath(mDomainName, "n");
    EXPECT_FALSE(domain->checkNodeAlive(node->nodeId())) << "not before init()";
    EXPECT_EQ(node->newReadChannel("c"), nullptr);
    EXPECT_EQ(node->newWriteChannel("c"), nullptr);
    EXPECT_FALSE(node->deInit());
    EXPECT_TRUE(node->init());
    EXPECT_TRUE(node->init());
    EXPECT_TRUE(mLog.has(" SharedMemNode n already init"));
    EXPECT_EQ(stateOf(*node), NodeState::Alive);
    EXPECT_TRUE(rawConnect(path).valid());

    EXPECT_TRUE(node->deInit());
    EXPECT_EQ(stateOf(*node), NodeState::Free);
    EXPECT_FALSE(rawConnect(path).valid());
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(node->nodeId(), 0u);
    EXPECT_EQ(node->newReadChannel("c"), nullptr);
    EXPECT_FALSE(node->deInit());
    EXPECT_FALSE(node->init()) << "its place in the domain is gone";
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == descriptors; }));
}

TEST_F(SharedMemNodeTest, InitNeedsAJoinedDomainAndAPathThatFits) {
    auto domain = joined();
    const auto longNamed = newNode(*domain, std::string(90, 'n'));
    EXPECT_FALSE(longNamed->init());
    EXPECT_TRUE(mLog.has("UnixServer initial failed for /tmp/shmipc_" + mDomainName + "_nnn"));
    EXPECT_EQ(longNamed->newReadChannel("c"), nullptr);

    const auto late = newNode(*domain, "late");
    domain->deInit();
    EXPECT_FALSE(late->init());
    EXPECT_TRUE(mLog.has("SharedMemNode late get event loop failed"));
    mJoined.clear();
    domain.reset();
    EXPECT_FALSE(late->init());
    EXPECT_TRUE(mLog.has("SharedMemNode late get domain failed"));
    EXPECT_EQ(late->getDomain(), nullptr);
}

TEST_F(SharedMemNodeTest, ChannelsAreMadeOnceANameAndDirection) {
    const auto domain = joined();
    const auto node = aliveNode(*domain, "n");
    const std::string name = mCleanup.channel("c");
    const auto reader = node->newReadChannel(name);
    const auto writer = node->newWriteChannel(name);
    ASSERT_TRUE(reader && writer);
    EXPECT_EQ(node->newReadChannel(name), reader);
    EXPECT_EQ(node->newWriteChannel(name), writer);
    EXPECT_EQ(mLog.count("created new read channel [" + name + "]"), 1);
    EXPECT_EQ(mLog.count("created new write channel [" + name + "]"), 1);
    EXPECT_EQ(node->newReadChannel(""), nullptr);

    EXPECT_TRUE(node->deleteReadChannel(name));
    EXPECT_FALSE(node->deleteReadChannel(name));
    EXPECT_NE(node->newReadChannel(name), reader);
    EXPECT_EQ(node->newWriteChannel(name), writer);
    EXPECT_TRUE(node->deleteWriteChannel(name));
    EXPECT_FALSE(node->deleteWriteChannel("never made"));
}

TEST_F(SharedMemNodeTest, AnEntryThatIsNotAliveOrNotItsOwnIsLeftAlone) {
    const auto domain = joined();
    const auto table = segment();
    const auto closing = aliveNode(*domain, "closing");
    const auto robbed = aliveNode(*domain, "robbed");
    table->node(closing->slot()).state.store(NodeState::Closing);
    EXPECT_FALSE(closing->deInit());
    EXPECT_EQ(stateOf(*closing), NodeState::Closing);
    const unsigned long stranger = robbed->nodeId() + 1;
    table->node(robbed->slot()).nodeId.store(stranger);
    EXPECT_FALSE(robbed->deInit());
    EXPECT_EQ(robbed->nodeId(), 0u);
    EXPECT_TRUE(domain->deInit()) << "their servers end with the loop nevertheless";
    EXPECT_TRUE(table->nodeAlive(stranger));
    EXPECT_FALSE(rawConnect(nodeSocketPath(mDomainName, "robbed")).valid());
}

TEST_F(SharedMemNodeTest, OfTwoNodesOfOneNameTheLaterHasTheSocket) {
    const auto first = joined();
    const auto second = joined();
    const auto a = aliveNode(*first, "twin");
    const auto b = aliveNode(*second, "twin");
    EXPECT_NE(a->nodeId(), b->nodeId());
    EXPECT_TRUE(first->checkNodeAlive(a->nodeId()) && first->checkNodeAlive(b->nodeId()));
    const auto toFirst = second->getReaderProxy(a->nodeId());
    ASSERT_TRUE(toFirst);
    const auto message = PipeMessage::make(static_cast<PipeAction>(9), {}, 1, 2, 3);
    EXPECT_TRUE(waitFor([&] { return toFirst->writeMessage(message); }));
    EXPECT_TRUE(waitFor([&] { return mLog.has("unkown msg action 9"); }));
    EXPECT_TRUE(
        second->deInit());  // the first to go, or it would take the file from under this one
}

TEST_F(SharedMemNodeTest, InitRacesWithLeavingTheDomain) {
    const long descriptors = openDescriptors();
    const auto domain = joined();
    for (int round = 0; round < 20; ++round) {
        const auto node = newNode(*domain, "racer");
        ASSERT_TRUE(node);
        {
            const std::jthread starter([&] { node->init(); });
            EXPECT_TRUE(domain->deInit());
        }
        EXPECT_TRUE(domain->init(Json::objectValue));
    }
    domain->deInit();
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == descriptors; }));
    EXPECT_EQ(usedSlots(), 0u);
}

}  // namespace
}  // namespace OrbelTest
