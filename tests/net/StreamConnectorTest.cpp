#include "Vantel/Orbel/StreamConnector.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "StreamTestSupport.h"
#include "Vantel/Orbel/StreamSocket.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace OrbelTest;
using Vantel::Orbel::StreamConnector;
using Vantel::Orbel::StreamSocket;

namespace {

/// An address of the family that nobody listens on.
InetAddress deadAddress(Family family) {
    const InetAddress addr = freshAddress(family);
    return family == Family::Unix ? addr : PeerListener(addr).addr();
}

/// A listener whose queue is full: a TCP connect hangs, a Unix one is told to try again.
struct FullListener {
    explicit FullListener(Family family) : listener(freshAddress(family), 0) {
        for (int i = 0; i < 2; ++i) {
            const int fd =
                ::socket(listener.addr().family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            waiting.emplace_back(fd);
            ::connect(fd, listener.addr().getSockAddr(), listener.addr().getSockLen());
        }
    }
    PeerListener listener;
    std::vector<Peer> waiting;
};

class StreamConnectorTest : public testing::TestWithParam<Family> {
protected:
    StreamConnectorTest() {
        mConnector->setConnectedCallback([this](std::unique_ptr<StreamSocket> socket) {
            mSocket = std::move(socket);
            ++mConnected;
        });
    }
    ~StreamConnectorTest() override {
        mConnector.reset();
        mLoop.run([this] { mSocket.reset(); });
    }
    /// start() in the loop; 0 or its errno.
    int start(const InetAddress& addr, int timeoutMs) {
        int error = 0;
        mLoop.run([&] { error = mConnector->start(addr, timeoutMs) ? 0 : errno; });
        return error;
    }

    LogCapture mLog;
    LoopThread mLoop;
    std::unique_ptr<StreamConnector> mConnector =
        std::make_unique<StreamConnector>(mLoop.get(), "test");
    std::unique_ptr<StreamSocket> mSocket;
    std::atomic<int> mConnected{0};
};

TEST_P(StreamConnectorTest, HandsOverAConnectedSocketAndIsIdleAgain) {
    PeerListener listener(freshAddress(GetParam()));
    for (int i = 1; i <= 2; ++i) {
        EXPECT_EQ(start(listener.addr(), 1000), 0);
        Peer peer = listener.accept();
        ASSERT_TRUE(waitFor([&] { return mConnected == i; }));
        mLoop.run([&] { EXPECT_EQ(mSocket->send("hi", 2, 0), 2); });
        EXPECT_EQ(peer.receive(2), "hi");
    }
    EXPECT_EQ(mConnector->serverAddr().toString(), listener.addr().toString());
}

TEST_P(StreamConnectorTest, WithoutRetryARefusalEndsTheMatter) {
    const InetAddress addr = deadAddress(GetParam());
    bool restarted = true;
    mLoop.run([&] { restarted = mConnector->restart(100); });
    EXPECT_FALSE(restarted) << "no address yet";
    const int error = start(addr, 0);
    EXPECT_TRUE(error != 0 || waitFor([&] { return mLog.has("StreamConnector::connect failed"); }));
    EXPECT_EQ(mLog.count("Retry connecting"), 0);

    PeerListener late(addr);
    ASSERT_TRUE(late.valid());
    mLoop.run([&] { restarted = mConnector->restart(1000); });
    EXPECT_TRUE(restarted);
    EXPECT_TRUE(waitFor([&] { return mConnected == 1; }));
}

TEST_P(StreamConnectorTest, RetriesAfterDoublingDelaysAndASuccessResetsThem) {
    const InetAddress addr = deadAddress(GetParam());
    const auto delays = [&](int delayMs) {
        return mLog.count(" StreamConnector::retry - Retry connecting to " + addr.toString() +
                          " in " + std::to_string(delayMs) + " milliseconds");
    };
    mConnector->setRetry(true);
    EXPECT_EQ(start(addr, 500), 0) << "a scheduled retry is no failure";
    EXPECT_TRUE(waitFor([&] { return delays(1000) == 2; }));
    for (const int delayMs : {100, 200, 400, 800}) {
        EXPECT_EQ(delays(delayMs), 1) << delayMs;
    }
    {
        PeerListener late(addr);
        ASSERT_TRUE(late.valid());
        EXPECT_TRUE(waitFor([&] { return mConnected == 1; }));
    }
    mLoop.run([&] { mConnector->restart(500); });
    EXPECT_TRUE(waitFor([&] { return delays(100) == 2; }));
    mConnector->stop();
    const int stopped = mLog.count("Retry connecting");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(mLog.count("Retry connecting"), stopped) << "tries on after stop()";
}

/// A socket that found the queue of a Unix listener full looks writable and free of errors, but is
/// not connected.
TEST_P(StreamConnectorTest, FullQueueIsNoSuccess) {
    FullListener full(GetParam());
    mConnector->setRetry(true);
    EXPECT_EQ(start(full.listener.addr(), 200), 0);
    EXPECT_TRUE(waitFor([&] { return mLog.has("Retry connecting"); }));
    EXPECT_EQ(mConnected, 0);
    EXPECT_EQ(mLog.has(" StreamConnector::connect timeout for "), GetParam() == Family::Tcp);

    while (mConnected == 0 && !HasFailure()) {
        Peer peer = full.listener.accept();  // makes room
        ASSERT_TRUE(peer.connected());
        waitFor([&] { return mConnected == 1; }, 100);
    }
    mLoop.run([&] {
        EXPECT_TRUE(mSocket->getPeerAddress().isValid());
        mSocket.reset();
    });
}

TEST_P(StreamConnectorTest, OneAttemptAtATime) {
    if (GetParam() == Family::Unix) {
        GTEST_SKIP() << "a Unix connect is never under way";
    }
    FullListener full(GetParam());
    EXPECT_EQ(start(full.listener.addr(), 0), 0);
    EXPECT_EQ(start(full.listener.addr(), 0), EALREADY);
    mConnector->stop();
    mConnector->stop();
    EXPECT_EQ(start(full.listener.addr(), 1), 0);
    EXPECT_TRUE(waitFor([&] { return mLog.has("connect timeout"); }));
    EXPECT_EQ(mConnected, 0);
}

TEST_P(StreamConnectorTest, SetupCallbackPreparesRefusesOrStops) {
    PeerListener listener(freshAddress(GetParam()));
    mConnector->setRetry(true);
    bool allow = true;
    bool stop = false;
    mLoop.run([&] {
        mConnector->setSocketSetupCallback([&](StreamSocket* socket) {
            EXPECT_GE(socket->fd(), 0);
            if (stop) {
                mConnector->stop();
            }
            errno = EPERM;
            return allow;
        });
    });
    EXPECT_EQ(start(listener.addr(), 500), 0);
    EXPECT_TRUE(waitFor([&] { return mConnected == 1; }));

    const long before = openDescriptors();
    allow = false;
    EXPECT_EQ(start(listener.addr(), 500), EPERM);
    EXPECT_EQ(mLog.count("]StreamConnector::connect socket setup failed for " +
                         listener.addr().toString() + ": Operation not permitted"),
              1);
    allow = true;
    stop = true;
    EXPECT_EQ(start(listener.addr(), 500), ECANCELED);
    EXPECT_EQ(mConnected, 1);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(mLog.count("Retry connecting"), 0) << "a refusal is final";
    mLoop.run([&] { mConnector->setSocketSetupCallback({}); });
}

TEST_P(StreamConnectorTest, ConnectedCallbackMayStartAgainOrDestroyTheConnector) {
    PeerListener listener(freshAddress(GetParam()));
    std::vector<std::unique_ptr<StreamSocket>> sockets;
    mLoop.run([&] {
        mConnector->setConnectedCallback([&](std::unique_ptr<StreamSocket> socket) {
            EXPECT_TRUE(socket->getPeerAddress().isValid());
            sockets.push_back(std::move(socket));
            if (sockets.size() < 3) {
                mConnector->start(listener.addr(), 1000);
            } else {
                mConnector.reset();
            }
            ++mConnected;
        });
    });
    EXPECT_EQ(start(listener.addr(), 1000), 0);
    EXPECT_TRUE(waitFor([&] { return mConnected == 3; }));
    mLoop.run([&] { sockets.clear(); });
}

INSTANTIATE_TEST_SUITE_P(Families, StreamConnectorTest, testing::Values(Family::Tcp, Family::Unix),
                         [](const auto& i) { return i.param == Family::Tcp ? "Tcp" : "Unix"; });

TEST(StreamConnectorStopTest, BesideALoopThatDoesNotRunItIsIgnoredAndDestructionWaits) {
    LogCapture log;
    const long before = openDescriptors();
    {
        FullListener full(Family::Tcp);
        EventLoop loop;
        auto connector = std::make_unique<StreamConnector>(&loop, "test");
        ASSERT_TRUE(connector->start(full.listener.addr(), 60000));
        std::thread([&] {
            connector->stop();
            connector.reset();
        }).join();
        EXPECT_EQ(log.count(" StreamConnector::stop ignored for " +
                            full.listener.addr().toString() + ": event loop is not running"),
                  2);
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
