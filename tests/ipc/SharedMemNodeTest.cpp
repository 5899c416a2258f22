#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <thread>

#include "Vantel/Orbel/SharedMemReadChannel.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"
#include "ipc/NodeSocket.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemReaderProxy.h"
#include "tests/ipc/RawPeer.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/WaitFor.h"

namespace {

using namespace Vantel::Orbel;
using namespace OrbelTest;

class SharedMemNodeTest : public testing::Test {
protected:
    std::shared_ptr<SharedDomainImpl> joined() {
        auto domain = std::make_shared<SharedDomainImpl>(mName);
        EXPECT_TRUE(domain->init(Json::objectValue));
        return domain;
    }
    static std::shared_ptr<SharedMemNodeImpl> node(SharedDomainImpl& domain,
                                                   const std::string& name) {
        return std::static_pointer_cast<SharedMemNodeImpl>(domain.createNode(name));
    }
    NodeState stateOf(unsigned int slot) {
        return DomainSegment::open(mName)->node(slot).state.load();
    }

    LogCapture mLog;
    IpcCleanup mCleanup;
    const std::string mName = mCleanup.domain("node_of_a_domain_with_a_long_name");
};

TEST_F(SharedMemNodeTest, InitOpensTheSocketAndMakesTheNodeKnown) {
    const auto domain = joined();
    const long descriptors = openDescriptors();
    const auto made = node(*domain, "n");
    const std::string path = nodeSocketPath(mName, "n");
    EXPECT_FALSE(domain->checkNodeAlive(made->nodeId())) << "not before init()";
    EXPECT_FALSE(made->deInit());
    EXPECT_TRUE(made->init());
    EXPECT_TRUE(made->init());
    EXPECT_TRUE(mLog.has(" SharedMemNode n already init"));
    EXPECT_EQ(stateOf(made->slot()), NodeState::Alive);
    EXPECT_TRUE(rawConnect(path).valid());

    EXPECT_TRUE(made->deInit());
    EXPECT_EQ(stateOf(made->slot()), NodeState::Free);
    EXPECT_FALSE(rawConnect(path).valid());
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(made->nodeId(), 0u);
    EXPECT_FALSE(made->deInit());
    EXPECT_FALSE(made->init()) << "its place in the domain is gone";
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == descriptors; }));
    domain->deInit();
}

TEST_F(SharedMemNodeTest, InitNeedsAJoinedDomainAndAPathThatFits) {
    auto domain = joined();
    const auto longNamed = node(*domain, std::string(80, 'n'));
    EXPECT_FALSE(longNamed->init());
    EXPECT_TRUE(mLog.has("UnixServer initial failed for /tmp/shmipc_" + mName + "_nnn"));
    EXPECT_EQ(longNamed->newReadChannel(mCleanup.channel("c")), nullptr);

    const auto late = node(*domain, "late");
    domain->deInit();
    EXPECT_FALSE(late->init());
    EXPECT_TRUE(mLog.has("SharedMemNode late get event loop failed"));
    domain.reset();
    EXPECT_FALSE(late->init());
    EXPECT_TRUE(mLog.has("SharedMemNode late get domain failed"));
    EXPECT_EQ(late->getDomain(), nullptr);
}

TEST_F(SharedMemNodeTest, ChannelsAreMadeOnceANameAndDirection) {
    const auto domain = joined();
    const auto made = node(*domain, "n");
    const std::string name = mCleanup.channel("c");
    EXPECT_EQ(made->newReadChannel(name), nullptr) << "before init()";
    EXPECT_EQ(made->newWriteChannel(name), nullptr) << "before init()";
    ASSERT_TRUE(made->init());
    const auto reader = made->newReadChannel(name);
    const auto writer = made->newWriteChannel(name);
    ASSERT_TRUE(reader && writer);
    EXPECT_EQ(made->newReadChannel(name), reader);
    EXPECT_EQ(made->newWriteChannel(name), writer);
    EXPECT_EQ(mLog.count("created new read channel [" + name + "]"), 1);
    EXPECT_EQ(mLog.count("created new write channel [" + name + "]"), 1);
    EXPECT_EQ(made->newReadChannel(""), nullptr);

    EXPECT_TRUE(made->deleteReadChannel(name));
    EXPECT_FALSE(made->deleteReadChannel(name));
    EXPECT_NE(made->newReadChannel(name), reader);
    EXPECT_EQ(made->newWriteChannel(name), writer);
    EXPECT_TRUE(made->deleteWriteChannel(name));
    EXPECT_FALSE(made->deleteWriteChannel("never made"));
    EXPECT_TRUE(made->deInit());
    EXPECT_EQ(made->newReadChannel(name), nullptr);
    domain->deInit();
}

TEST_F(SharedMemNodeTest, AnEntryThatIsNotAliveOrNotItsOwnIsLeftAlone) {
    const auto domain = joined();
    const auto segment = DomainSegment::open(mName);
    const auto closing = node(*domain, "closing");
    const auto robbed = node(*domain, "robbed");
    ASSERT_TRUE(closing->init() && robbed->init());
    segment->node(closing->slot()).state.store(NodeState::Closing);
    EXPECT_FALSE(closing->deInit());
    EXPECT_EQ(stateOf(closing->slot()), NodeState::Closing);
    const unsigned long stranger = robbed->nodeId() + 1;
    segment->node(robbed->slot()).nodeId.store(stranger);
    EXPECT_FALSE(robbed->deInit());
    EXPECT_EQ(robbed->nodeId(), 0u);
    EXPECT_TRUE(domain->deInit()) << "their servers end with the loop nevertheless";
    EXPECT_TRUE(segment->nodeAlive(stranger));
    EXPECT_FALSE(rawConnect(nodeSocketPath(mName, "robbed")).valid());
}

TEST_F(SharedMemNodeTest, OfTwoNodesOfOneNameTheLaterHasTheSocket) {
    const auto first = joined();
    const auto second = joined();
    const auto a = node(*first, "twin");
    const auto b = node(*second, "twin");
    ASSERT_TRUE(a->init() && b->init());
    EXPECT_NE(a->nodeId(), b->nodeId());
    EXPECT_TRUE(first->checkNodeAlive(a->nodeId()) && first->checkNodeAlive(b->nodeId()));
    const auto toFirst = second->getReaderProxy(a->nodeId());
    ASSERT_TRUE(toFirst);
    const auto message = PipeMessage::make(static_cast<PipeAction>(9), {}, 1, 2, 3);
    EXPECT_TRUE(waitFor([&] { return toFirst->writeMessage(message); }));
    EXPECT_TRUE(waitFor([&] { return mLog.has("unkown msg action 9"); }));
    second->deInit();
    first->deInit();
}

TEST_F(SharedMemNodeTest, InitRacesWithLeavingTheDomain) {
    const long descriptors = openDescriptors();
    const auto domain = joined();
    for (int round = 0; round < 20; ++round) {
        const auto made = node(*domain, "racer");
        ASSERT_TRUE(made);
        std::thread starter([&] { made->init(); });
        EXPECT_TRUE(domain->deInit());
        starter.join();
        EXPECT_TRUE(domain->init(Json::objectValue));
    }
    domain->deInit();
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == descriptors; }));
    for (unsigned int slot = 0; slot < kMaxNodes; ++slot) {
        EXPECT_EQ(stateOf(slot), NodeState::Free) << slot;
    }
}

}  // namespace
