#include "Vantel/Orbel/StreamServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/EventLoopGroup.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/PlainStreamTransport.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/StreamSocket.h"
#include "Vantel/Orbel/TcpServer.h"
#include "Vantel/Orbel/UnixServer.h"
#include "tests/net/StreamTestSupport.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

struct Setup {
    Family family;
    size_t threads;
};

void PrintTo(const Setup& setup, std::ostream* out) {
    PrintTo(setup.family, out);
    *out << setup.threads << "Threads";
}

void echo(const StreamConnectionPtr& connection, NetBuffer* input) {
    connection->send(input->data(), input->size());
    input->consume(input->size());
}

bool echoes(Peer& peer) {
    return peer.send("ping") && peer.receive(4) == "ping";
}

/// A server called "srv" on a loop thread that is not the test's.
class StreamServerTest : public testing::TestWithParam<Setup> {
protected:
    StreamServerTest() {
        mServer->setWorkThreadNum(GetParam().threads);
        mServer->setMessageCallback(echo);
        mServer->setCloseCallback([this](const StreamConnectionPtr&) { ++mClosed; });
    }

    std::unique_ptr<StreamServer> make() {
        if (GetParam().family == Family::Tcp) {
            return std::make_unique<TcpServer>(mLoop.get(), "srv");
        }
        return std::make_unique<UnixServer>(mLoop.get(), "srv");
    }
    void start() {
        ASSERT_TRUE(mServer->initial(mAddr, "", false));
        ASSERT_TRUE(mServer->start());
    }
    Peer connect() { return Peer(mServer->listenAddr()); }
    std::vector<Peer> serve(int count) {
        std::vector<Peer> peers;
        for (int i = 0; i < count; ++i) {
            peers.push_back(connect());
            EXPECT_TRUE(echoes(peers.back()));
        }
        return peers;
    }
    bool count(size_t wanted) {
        return waitFor([&] { return mServer->connectionCount() == wanted; });
    }

    LogCapture mLog;
    const InetAddress mAddr = freshAddress(GetParam().family);
    LoopThread mLoop;
    std::atomic<int> mClosed{0};
    std::unique_ptr<StreamServer> mServer = make();
};

TEST_P(StreamServerTest, SpreadsConnectionsNamesAndForgetsThem) {
    std::mutex mutex;
    std::set<std::string> names;
    std::set<EventLoop*> loops;
    mServer->setConnectionCallback([&](const StreamConnectionPtr& connection) {
        EXPECT_TRUE(connection->getLoop()->isInLoopThread());
        std::lock_guard<std::mutex> guard(mutex);
        names.insert(connection->name());
        loops.insert(connection->getLoop());
    });
    start();
    std::vector<Peer> peers = serve(4);
    EXPECT_EQ(names, (std::set<std::string>{"srv-#1", "srv-#2", "srv-#3", "srv-#4"}));
    EXPECT_EQ(loops.size(), std::max<size_t>(GetParam().threads, 1));
    EXPECT_EQ(loops.count(mLoop.get()), GetParam().threads == 0 ? 1u : 0u);
    EXPECT_EQ(mServer->connectionCount(), 4u);
    peers.pop_back();
    EXPECT_TRUE(count(3));
    peers[0].reset();
    EXPECT_TRUE(count(2));
    EXPECT_EQ(mClosed, 2);
    EXPECT_TRUE(echoes(peers[1]));
}

TEST_P(StreamServerTest, RefusesWhatItIsNotMadeForAndWrongOrders) {
    const auto refused = [this](bool result, const std::string& line) {
        EXPECT_FALSE(result);
        EXPECT_EQ(mLog.count(line), 1) << line;
    };
    const Family other = GetParam().family == Family::Tcp ? Family::Unix : Family::Tcp;
    refused(mServer->start(), "]StreamServer::start failed: server is not initialized");
    refused(mServer->initial(freshAddress(other), "", false),
            "]StreamServer::initial failed: invalid listen address ");
    start();
    EXPECT_TRUE(mServer->start()) << "second call";
    refused(mServer->initial(mAddr, "", false),
            "]StreamServer::initial failed: server already started");
    mServer->setWorkGroup(nullptr);
    mServer->setTransportFactory({});
    EXPECT_TRUE(mLog.has("] StreamServer::setWorkGroup ignored: server already started"));
    EXPECT_TRUE(mLog.has("] StreamServer::setTransportFactory ignored: server already started"));
    mServer->stop();
    EXPECT_FALSE(mServer->start()) << "needs initial() again";
}

TEST_P(StreamServerTest, StopDropsConnectionsWithoutCloseCallback) {
    start();
    mServer->stop();
    const long before = openDescriptors();
    for (const bool inLoop : {false, true}) {
        SCOPED_TRACE(inLoop);
        start();
        std::vector<Peer> peers = serve(5);
        const auto stop = [&] { mServer->stop(); };
        inLoop ? mLoop.run(stop) : stop();
        EXPECT_EQ(mServer->connectionCount(), 0u);
        for (Peer& peer : peers) {
            EXPECT_TRUE(peer.ended());
        }
        EXPECT_EQ(mClosed, 0);
        EXPECT_NE(::access(mAddr.getUnixPath().c_str(), F_OK), 0) << "socket file left";
        EXPECT_FALSE(connect().connected());
    }
    mLoop.run([] {});
    EXPECT_EQ(openDescriptors(), before);
}

/// Each callback stops or destroys its own server, on the base loop below the accept loop or on a
/// worker that then has to end itself.
TEST_P(StreamServerTest, StopAndDestructionFromEachCallback) {
    mServer.reset();
    const long before = openDescriptors();
    for (const std::string place : {"connection", "message", "close"}) {
        for (const bool destroy : {false, true}) {
            SCOPED_TRACE(place + (destroy ? ", destroy" : ", stop"));
            mServer = make();
            mServer->setWorkThreadNum(GetParam().threads);
            std::atomic<bool> begun{false};
            std::atomic<bool> done{false};
            const auto at = [&](const std::string& here) {
                if (here == place && !begun.exchange(true)) {
                    destroy ? mServer.reset() : mServer->stop();
                    done = true;
                }
            };
            mServer->setConnectionCallback([&](const StreamConnectionPtr&) { at("connection"); });
            mServer->setMessageCallback([&](const StreamConnectionPtr& connection, NetBuffer* in) {
                at("message");
                echo(connection, in);  // may end in the close callback: nothing may follow it here
            });
            mServer->setCloseCallback([&](const StreamConnectionPtr&) { at("close"); });
            start();
            const InetAddress bound = mServer->listenAddr();
            Peer bystander(bound);
            Peer peer(bound);
            peer.send("ping");
            if (place == "close") {
                peer.close();
            }
            EXPECT_TRUE(waitFor([&] { return done.load(); }));
            EXPECT_TRUE(bystander.ended());
            EXPECT_FALSE(Peer(bound).connected());
        }
    }
    mServer.reset();
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; }));
}

/// Bytes before the end of the stream are never lost, whatever way the peer takes.
TEST_P(StreamServerTest, PeersThatHalfCloseResetOrVanishInAMessage) {
    std::atomic<size_t> received{0};
    mServer->setMessageCallback([&](const StreamConnectionPtr& connection, NetBuffer* input) {
        received += input->size();
        echo(connection, input);
    });
    start();
    Peer bystander = connect();
    const std::string half(100000, 'h');

    Peer halfClosing = connect();
    halfClosing.send("last words");
    ::shutdown(halfClosing.fd(), SHUT_WR);
    EXPECT_EQ(halfClosing.receive(10), "last words");
    EXPECT_TRUE(halfClosing.ended());
    EXPECT_TRUE(count(1));

    Peer resetting = connect();
    resetting.send(half);
    EXPECT_TRUE(waitFor([&] { return received == 10 + half.size(); }));
    resetting.reset();
    EXPECT_TRUE(count(1));

    HelperProcess helper("StreamPeerHelper", {"send", mServer->listenAddr().toString()});
    ASSERT_TRUE(helper.waitForLine("sent"));
    EXPECT_TRUE(count(2));
    helper.killAndReap();
    EXPECT_TRUE(count(1));
    EXPECT_EQ(mClosed, 3);
    EXPECT_TRUE(echoes(bystander));
}

TEST_P(StreamServerTest, ThousandConnectionsLeaveNoDescriptor) {
    start();
    const long before = openDescriptors();
    for (int round = 0; round < 5; ++round) {
        std::vector<Peer> peers;
        for (int i = 0; i < 200; ++i) {
            peers.push_back(connect());
            ASSERT_TRUE(peers.back().connected());
        }
        for (size_t i = 0; i < peers.size(); i += 2) {
            EXPECT_TRUE(echoes(peers[i]));
            if (i % 4 == 0) {
                peers[i].reset();
            }
        }
    }
    EXPECT_TRUE(count(0));
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; }))
        << before << " before, now " << openDescriptors();
}

TEST_P(StreamServerTest, RefusedTransportLosesThatConnectionOnlyAndLimitsReachTheOthers) {
    std::atomic<int> made{0};
    mServer->setMaxOutputBufferSize(4);
    mServer->setSendBufferSize(65536);
    mServer->setMessageCallback([](const StreamConnectionPtr& connection, NetBuffer* input) {
        int size = 0;
        unsigned length = sizeof size;
        connection->getSocket()->getSocketOption(SOL_SOCKET, SO_SNDBUF, &size, &length);
        EXPECT_EQ(size, 2 * 65536);
        EXPECT_EQ(connection->send("large", 5), -1);
        EXPECT_EQ(errno, EMSGSIZE);
        echo(connection, input);
    });
    mServer->setTransportFactory([&](std::unique_ptr<StreamSocket> socket) {
        return ++made == 1 ? nullptr : std::make_unique<PlainStreamTransport>(std::move(socket));
    });
    start();
    Peer refused = connect();
    EXPECT_TRUE(refused.ended());
    EXPECT_TRUE(waitFor([&] {
        return mLog.has(
            "]StreamServer::newConnection transport creation failed for srv-#1: Invalid argument");
    }));
    Peer peer = connect();
    EXPECT_TRUE(echoes(peer));
    EXPECT_EQ(mServer->connectionCount(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Setups, StreamServerTest,
                         testing::Values(Setup{Family::Tcp, 0}, Setup{Family::Unix, 0},
                                         Setup{Family::Tcp, 2}, Setup{Family::Unix, 2}),
                         testing::PrintToStringParamName());

TEST(StreamServerGroupTest, TwoServersShareOneGroupAndLeaveItRunning) {
    LogCapture log;
    LoopThread loop;
    EventLoopGroup group(loop.get(), "shared");
    group.setThreadNum(2);
    TcpServer tcp(loop.get(), "tcp", &group);
    UnixServer local(loop.get(), "local", &group);
    tcp.setMessageCallback(echo);
    local.setMessageCallback(echo);
    tcp.setWorkThreadNum(7);
    tcp.setThreadInitCallback({});
    EXPECT_TRUE(log.has("] StreamServer::setWorkThreadNum ignored: work group is injected"));
    EXPECT_TRUE(log.has("] StreamServer::setThreadInitCallback ignored: work group is injected"));
    ASSERT_TRUE(tcp.initial(freshAddress(Family::Tcp), "", false));
    ASSERT_TRUE(local.initial(freshAddress(Family::Unix), "", false));
    EXPECT_FALSE(tcp.start());
    EXPECT_TRUE(log.has("]StreamServer::start failed: injected work group is not started"));
    ASSERT_TRUE(group.start());
    ASSERT_TRUE(tcp.start() && local.start());

    Peer first(tcp.listenAddr());
    Peer second(local.listenAddr());
    EXPECT_TRUE(echoes(first) && echoes(second));
    tcp.stop();
    EXPECT_TRUE(first.ended());
    EXPECT_TRUE(echoes(second));
    local.stop();
    EXPECT_TRUE(group.started());
}

/// What a foreign thread cannot clean up, since the base loop does not run, waits for the loops.
TEST(StreamServerLoopTest, DestroyedBesideABaseLoopThatDoesNotRun) {
    for (const size_t threads : {0u, 2u}) {
        SCOPED_TRACE(threads);
        LogCapture log;
        const long before = openDescriptors();
        {
            EventLoop loop;
            auto server = std::make_unique<TcpServer>(&loop, "srv");
            server->setWorkThreadNum(threads);
            server->setConnectionCallback([&](const StreamConnectionPtr&) { loop.quit(); });
            ASSERT_TRUE(server->initial(freshAddress(Family::Tcp), "", false));
            ASSERT_TRUE(server->start());
            Peer peer(server->listenAddr());
            loop.loop();
            EXPECT_EQ(server->connectionCount(), 1u);
            std::thread([&] { server.reset(); }).join();
            EXPECT_EQ(log.count("] StreamServer::stop ignored for srv: event loop is not running"),
                      1);
            peer.close();
            loop.setMode(kLoopTimed);
            loop.setTimeout(50);
            loop.loop();
        }
        EXPECT_EQ(openDescriptors(), before);
    }
}

/// A loop that ends between a close and the removal it queued takes nothing down with it.
TEST(StreamServerLoopTest, CloseThatTheLoopEndsUpon) {
    EventLoop loop;
    TcpServer server(&loop, "srv");
    server.setConnectionCallback([&](const StreamConnectionPtr& connection) {
        loop.queueInLoop([&loop, connection] {
            connection->forceClose();
            loop.quit();
        });
    });
    ASSERT_TRUE(server.initial(freshAddress(Family::Tcp), "", false));
    ASSERT_TRUE(server.start());
    Peer peer(server.listenAddr());
    loop.loop();
    EXPECT_EQ(server.connectionCount(), 0u);
    EXPECT_TRUE(peer.ended());
}

}  // namespace
