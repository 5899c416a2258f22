#include <sys/stat.h>

#include <chrono>
#include <semaphore>
#include <thread>

#include "Vantel/Orbel/UnixClient.h"
#include "frame/base/ScopeExit.h"
#include "ipc/NodeSocket.h"
#include "ipc/SharedMemReaderProxy.h"
#include "ipc/SharedMemWriterProxy.h"
#include "tests/ipc/DomainFixture.h"
#include "tests/ipc/RawPeer.h"
#include "tests/support/OpenDescriptors.h"

namespace OrbelTest {
namespace {

/// The peer is an entry in the node table with a plain socket of the test behind it.
class SharedMemProxyTest : public DomainFixture {
protected:
    static constexpr unsigned long kPeerId = 0x1234567890ABCDEF;

    void SetUp() override {
        const DomainSegment::Lock lock(*mTable);
        mSlot = *mTable->claimSlot();
        mTable->fillSlot(mSlot, "peer", kPeerId);
        mTable->node(mSlot).state.store(NodeState::Alive);
    }

    static PipeMessage message(uint64_t sequence, int fd = -1) {
        return PipeMessage::make(PipeAction::DataReady, {}, 1, 2, sequence, fd);
    }
    /// The connection is made behind the caller's back, with retries.
    static bool sent(SharedMemProxyBase& proxy) {
        return waitFor([&] { return proxy.writeMessage(message(0)); });
    }
    UniqueFd listen() const { return rawListen(nodeSocketPath(mDomainName, "peer")); }

    std::shared_ptr<SharedDomainImpl> mDomain = joined();
    std::shared_ptr<DomainSegment> mTable = segment();
    unsigned int mSlot = 0;
};

TEST_F(SharedMemProxyTest, RecordsOfManyThreadsArriveWholeAndInOrder) {
    const UniqueFd listener = listen();
    const auto proxy = mDomain->getReaderProxy(kPeerId);
    ASSERT_TRUE(proxy);
    EXPECT_EQ(mDomain->getReaderProxy(kPeerId), proxy);
    EXPECT_STREQ(proxy->name(), "peer");
    EXPECT_TRUE(proxy->valid());
    ASSERT_TRUE(sent(*proxy));
    const UniqueFd connection = rawAccept(listener.get());
    UniqueFd descriptor;
    PipeMessage got;
    ASSERT_TRUE(rawReceive(connection.get(), &got, sizeof got, descriptor));

    constexpr uint64_t kThreads = 4;
    constexpr uint64_t kEach = 300;
    struct stat sentFile = {};
    fstat(listener.get(), &sentFile);
    std::counting_semaphore<> room(32);  // nobody may outrun the reader: a send waits 10 ms at most
    std::vector<std::jthread> threads;
    for (uint64_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (uint64_t i = 1; i <= kEach; ++i) {
                room.acquire();
                // Each third record carries a descriptor.
                const auto record = message(thread << 32 | i, i % 3 == 0 ? listener.get() : -1);
                EXPECT_TRUE(proxy->writeMessage(record));
            }
        });
    }
    const ScopeExit letGo([&] { room.release(kThreads * kEach); });
    uint64_t last[kThreads] = {};
    for (uint64_t i = 0; i < kThreads * kEach; ++i) {
        descriptor.reset();
        ASSERT_TRUE(rawReceive(connection.get(), &got, sizeof got, descriptor));
        room.release();
        const uint64_t thread = got.sequence >> 32;
        const uint64_t number = got.sequence & 0xFFFFFFFF;
        ASSERT_LT(thread, kThreads);
        EXPECT_EQ(number, ++last[thread]);
        ASSERT_EQ(descriptor.valid(), number % 3 == 0);
        struct stat gotFile = {};
        if (descriptor.valid() && fstat(descriptor.get(), &gotFile) == 0) {
            EXPECT_EQ(gotFile.st_ino, sentFile.st_ino);
        }
    }
}

TEST_F(SharedMemProxyTest, APeerThatIsGoneAtConnectIsReachedOnceItIsBack) {
    const auto proxy = mDomain->getWriterProxy(kPeerId);  // in the table, but nobody listens
    ASSERT_TRUE(proxy);
    errno = 0;
    EXPECT_FALSE(proxy->writeMessage(message(1)));
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_TRUE(mLog.has("SharedMemWriterProxy::writeMessage - no connection, node=peer"));
    EXPECT_TRUE(
        mLog.has("SharedMemWriterProxy(peer): initial connection not ready, retry enabled"));

    const UniqueFd listener = listen();
    EXPECT_TRUE(sent(*proxy));
    EXPECT_TRUE(rawAccept(listener.get()).valid());  // and closed: the next sends fail
    UniqueFd again;
    EXPECT_TRUE(waitFor([&] {
        proxy->writeMessage(message(2));
        again = rawAccept(listener.get(), 1);
        return again.valid();
    }));
    EXPECT_TRUE(sent(*proxy));
}

TEST_F(SharedMemProxyTest, APeerThatStopsReadingLosesItsConnectionAndNotOurTime) {
    const UniqueFd listener = listen();
    const auto proxy = mDomain->getReaderProxy(kPeerId);
    ASSERT_TRUE(proxy && sent(*proxy));
    const UniqueFd connection = rawAccept(listener.get());
    int filled = 0;
    auto begin = std::chrono::steady_clock::now();
    while (proxy->writeMessage(message(1)) && ++filled < 100000) {
        begin = std::chrono::steady_clock::now();
    }
    EXPECT_LT(filled, 100000) << "nobody reads, and still everything can be sent";
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(9));
    // What was queued arrives whole; then the stream ends.
    PipeMessage got;
    UniqueFd descriptor;
    int arrived = 0;
    while (rawReceive(connection.get(), &got, sizeof got, descriptor)) {
        ++arrived;
    }
    EXPECT_EQ(arrived, filled + 1);
    EXPECT_TRUE(sent(*proxy)) << "the client did not connect again";
}

TEST_F(SharedMemProxyTest, AProxyOfAReusedSlotIsDroppedAndItsHolderIsSafe) {
    const long descriptors = openDescriptors();
    const UniqueFd listener = listen();
    const auto proxy = mDomain->getReaderProxy(kPeerId);
    ASSERT_TRUE(proxy && sent(*proxy));
    mTable->node(mSlot).nodeId.store(kPeerId + 1);
    EXPECT_FALSE(proxy->valid());
    EXPECT_TRUE(waitFor([&] { return mDomain->getReaderProxy(kPeerId) == nullptr; }));
    EXPECT_TRUE(waitFor([&] { return !proxy->writeMessage(message(1)) && errno == ENOTCONN; }));
    EXPECT_TRUE(mDomain->getReaderProxy(kPeerId + 1)) << "the new node of the slot";
    mTable->node(mSlot).nodeId.store(kPeerId + 2);
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == descriptors + 1; }));
}

TEST_F(SharedMemProxyTest, ABadClientIsRefused) {
    const auto client = [&] {
        return std::make_unique<UnixClient>(mDomain->getEventLoop(), "client");
    };
    SharedMemReaderProxy empty(mDomain->getEventLoop(), {}, mDomainName);
    EXPECT_STREQ(empty.name(), "");
    EXPECT_FALSE(empty.valid());
    EXPECT_FALSE(empty.connect());
    EXPECT_FALSE(empty.writeMessage(message(1)));
    EXPECT_FALSE(empty.attachClient(client()));

    const UniqueFd listener = listen();
    SharedMemWriterProxy idle(nullptr, *mTable->findAliveNode(kPeerId), mDomainName);
    EXPECT_FALSE(idle.writeMessage(message(1)));
    EXPECT_FALSE(idle.attachClient(nullptr));
    EXPECT_TRUE(idle.attachClient(client()));
    EXPECT_FALSE(idle.attachClient(client())) << "there is one already";
    EXPECT_TRUE(sent(idle));
    idle.close();
    EXPECT_FALSE(idle.writeMessage(message(1)));
}

TEST_F(SharedMemProxyTest, SendersInHandOutliveTheDomain) {
    const UniqueFd listener = listen();
    const auto proxy = mDomain->getReaderProxy(kPeerId);
    ASSERT_TRUE(proxy);
    std::atomic<bool> stop{false};
    std::vector<std::jthread> senders;
    for (int i = 0; i < 2; ++i) {
        senders.emplace_back([&] {
            while (!stop) {
                proxy->writeMessage(message(1));
                if (const auto other = mDomain->getReaderProxy(kPeerId)) {
                    other->writeMessage(message(2));
                }
            }
        });
    }
    for (int round = 0; round < 5; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_TRUE(mDomain->deInit());
        EXPECT_FALSE(proxy->writeMessage(message(3)));
        EXPECT_TRUE(mDomain->init(Json::objectValue));
    }
    stop = true;
}

}  // namespace
}  // namespace OrbelTest
