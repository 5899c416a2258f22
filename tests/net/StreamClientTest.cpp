#include "Vantel/Orbel/StreamClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/StreamSocket.h"
#include "Vantel/Orbel/StreamTransport.h"
#include "Vantel/Orbel/TcpClient.h"
#include "Vantel/Orbel/UnixClient.h"
#include "tests/net/StreamTestSupport.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

/// A client called "chat" on a loop thread that is not the test's, and a listener for it.
class StreamClientTest : public testing::TestWithParam<Family> {
protected:
    StreamClientTest() { mClient = make(); }

    std::unique_ptr<StreamClient> make() {
        std::unique_ptr<StreamClient> client;
        if (GetParam() == Family::Tcp) {
            client = std::make_unique<TcpClient>(mLoop.get(), "chat");
        } else {
            client = std::make_unique<UnixClient>(mLoop.get(), "chat");
        }
        client->setConnectionCallback([this](const StreamConnectionPtr& connection) {
            std::lock_guard<std::mutex> guard(mMutex);
            mNames.push_back(connection->name());
        });
        client->setMessageCallback(
            [](const StreamConnectionPtr&, NetBuffer* input) { input->consume(input->size()); });
        client->setCloseCallback([this](const StreamConnectionPtr&) { ++mClosed; });
        return client;
    }
    bool connect() { return mClient->connect(mListener.addr(), 1000); }
    /// Connects; the other end.
    Peer meet() {
        EXPECT_TRUE(connect());
        EXPECT_TRUE(waitFor([&] { return mClient->connection() != nullptr; }));
        return mListener.accept();
    }
    bool connections(size_t wanted) {
        return waitFor([&] {
            std::lock_guard<std::mutex> guard(mMutex);
            return mNames.size() == wanted;
        });
    }
    bool forgotten() {
        return waitFor([&] { return mClient->connection() == nullptr; });
    }

    LogCapture mLog;
    PeerListener mListener{freshAddress(GetParam())};
    LoopThread mLoop;
    std::mutex mMutex;
    std::vector<std::string> mNames;
    std::atomic<int> mClosed{0};
    std::unique_ptr<StreamClient> mClient;
};

TEST_P(StreamClientTest, ConnectsOnceAtATimeAndNamesItsConnections) {
    const Family other = GetParam() == Family::Tcp ? Family::Unix : Family::Tcp;
    EXPECT_FALSE(mClient->connect(freshAddress(other), 100));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(mLog.has("]StreamClient::connect failed: invalid server address " +
                         std::string(other == Family::Tcp ? "127.0.0.1:0" : "unix:")));
    for (size_t i = 1; i <= 2; ++i) {
        Peer peer = meet();
        ASSERT_TRUE(connections(i));
        EXPECT_EQ(mNames[i - 1], "chat:" + mListener.addr().toString() + "#" + std::to_string(i));
        EXPECT_FALSE(connect());
        EXPECT_EQ(errno, EISCONN);
        EXPECT_EQ(mClient->connection()->send("hi", 2), 2);
        EXPECT_EQ(peer.receive(2), "hi");
        peer.close();
        EXPECT_TRUE(forgotten());
        EXPECT_EQ(mClosed, static_cast<int>(i));
    }
    EXPECT_TRUE(connections(2)) << "reconnected without being asked to";
}

/// What is queued still arrives, and a peer that closes is not waited for.
TEST_P(StreamClientTest, DisconnectSendsTheRestAndEndsWithThePeer) {
    Peer peer = meet();
    mClient->enableRetry();
    const std::string large(1 << 20, 'x');
    EXPECT_EQ(mClient->connection()->send(large), static_cast<ssize_t>(large.size()));
    mClient->disconnect();
    EXPECT_EQ(peer.receive(large.size()), large);
    EXPECT_TRUE(peer.ended());
    peer.close();
    EXPECT_TRUE(forgotten());
    EXPECT_EQ(mClosed, 1);
    EXPECT_FALSE(mLog.has("StreamClient::disconnect timeout"));
    EXPECT_TRUE(connections(1)) << "nobody wanted it back";
    mClient->disconnect();
    EXPECT_TRUE(connect()) << "fit for another connection";
    EXPECT_TRUE(connections(2));
}

TEST_P(StreamClientTest, DisconnectGivesAPeerThatIgnoresItASecond) {
    Peer peer = meet();
    const std::string name = mClient->connection()->name();
    mClient->disconnect();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto again = std::chrono::steady_clock::now();
    mClient->disconnect();
    EXPECT_TRUE(forgotten());
    EXPECT_GE(std::chrono::steady_clock::now() - again, std::chrono::milliseconds(990))
        << "the second call starts the second anew";
    EXPECT_EQ(
        mLog.count("] StreamClient::disconnect timeout for " + name + ", force closing connection"),
        1);
    EXPECT_EQ(mClosed, 1);
}

/// The server is a process that is killed, twice; the client finds each successor by itself.
TEST_P(StreamClientTest, RetryOutlivesServers) {
    const InetAddress addr = deadAddress(GetParam());
    mClient->enableRetry();
    mClient->connect(addr, 1000);
    for (size_t i = 1; i <= 3; ++i) {
        HelperProcess server("StreamPeerHelper", {"serve", addr.toString()});
        ASSERT_TRUE(server.waitForLine("ready"));
        ASSERT_TRUE(connections(i));
        server.killAndReap();
        EXPECT_TRUE(waitFor([&] { return mClosed == static_cast<int>(i); }));
    }
    EXPECT_TRUE(waitFor([&] { return mLog.has("StreamConnector::retry - Retry connecting"); }));
    mClient->stop();
    EXPECT_FALSE(mClient->retry());
    const int tries = mLog.count("Retry connecting");
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(mLog.count("Retry connecting"), tries) << "tries on after stop()";
    if (addr.family() == AF_UNIX) {
        ::unlink(addr.getUnixPath().c_str());
    }
}

TEST_P(StreamClientTest, StopDropsTheConnectionSilentlyAndForGood) {
    mClient->enableRetry();
    for (const bool inLoop : {false, true}) {
        SCOPED_TRACE(inLoop);
        Peer peer = meet();
        const auto stop = [&] { mClient->stop(); };
        inLoop ? mLoop.run(stop) : stop();
        EXPECT_FALSE(mClient->connection());
        EXPECT_TRUE(peer.ended());
    }
    EXPECT_EQ(mClosed, 0);
    EXPECT_TRUE(connections(2));
}

/// Each callback stops, disconnects or destroys its own client while a retry would be due.
TEST_P(StreamClientTest, EndFromEachCallback) {
    const long before = openDescriptors();
    const struct {
        const char* name;
        std::function<void()> end;
    } ways[] = {{"disconnect", [this] { mClient->disconnect(); }},
                {"stop", [this] { mClient->stop(); }},
                {"destroy", [this] { mClient.reset(); }}};
    for (const std::string place : {"setup", "connection", "message", "close"}) {
        for (const auto& way : ways) {
            SCOPED_TRACE(place + ", " + way.name);
            mClient = make();
            std::atomic<bool> done{false};
            const auto at = [&](const std::string& here) {
                if (here == place && !done) {
                    way.end();
                    done = true;
                }
            };
            mClient->setSocketSetupCallback([&](StreamSocket*) {
                at("setup");
                return true;
            });
            mClient->setConnectionCallback([&](const StreamConnectionPtr&) { at("connection"); });
            mClient->setMessageCallback([&](const StreamConnectionPtr&, NetBuffer* input) {
                input->consume(input->size());
                at("message");
            });
            mClient->setCloseCallback([&](const StreamConnectionPtr&) { at("close"); });
            mClient->enableRetry();
            mLoop.run([&] { connect(); });
            Peer peer = place == "setup" ? Peer() : mListener.accept();
            peer.send("ping");
            if (place == "close") {
                peer.close();
            }
            EXPECT_TRUE(waitFor([&] { return done.load(); }));
            EXPECT_TRUE(!peer.connected() || peer.ended());
            EXPECT_TRUE(!mClient || forgotten());
        }
    }
    mClient.reset();
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; }))
        << before << " before, now " << openDescriptors();
}

TEST_P(StreamClientTest, RefusedTransportIsReportedAndLeavesTheClientIdle) {
    mClient->setTransportFactory([](std::unique_ptr<StreamSocket>) { return nullptr; });
    ASSERT_TRUE(connect());
    EXPECT_TRUE(mListener.accept().ended());
    EXPECT_TRUE(waitFor(
        [&] { return mLog.has("]StreamClient::newConnection transport creation failed for "); }));
    mLoop.run([&] { mClient->setTransportFactory({}); });
    meet();
}

INSTANTIATE_TEST_SUITE_P(Families, StreamClientTest, testing::Values(Family::Tcp, Family::Unix),
                         testing::PrintToStringParamName());

/// The wait of connect() is bounded, and its task stays queued; the other calls say why they did
/// nothing; destruction leaves the connection to its loop.
TEST(StreamClientLoopTest, CallsBesideALoopThatDoesNotRun) {
    LogCapture log;
    const long before = openDescriptors();
    {
        PeerListener listener(freshAddress(Family::Tcp));
        EventLoop loop;
        auto client = std::make_unique<TcpClient>(&loop, "chat");
        client->setConnectionCallback([&](const StreamConnectionPtr&) { loop.quit(); });
        std::thread([&] {
            EXPECT_FALSE(client->connect(listener.addr(), 0));
            EXPECT_EQ(errno, ETIMEDOUT);
        }).join();
        loop.loop();
        ASSERT_TRUE(client->connection());
        std::thread([&] {
            errno = 0;
            client->disconnect();
            EXPECT_EQ(errno, ESHUTDOWN);
            client->stop();
            client.reset();
        }).join();
        EXPECT_EQ(log.count("] StreamClient::stop ignored for chat: event loop is not running"), 1);
        EXPECT_EQ(log.count("] StreamClient::~StreamClient skipped loop cleanup for chat: event "
                            "loop is not running"),
                  1);
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
