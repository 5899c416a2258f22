#include "Vantel/Orbel/StreamConnector.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/StreamSocket.h"
#include "tests/net/StreamTestSupport.h"
#include "tests/support/LogCapture.h"

using namespace OrbelTest;
using Vantel::Orbel::StreamConnector;
using Vantel::Orbel::StreamSocket;

namespace {

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

/// A connector in the test's own loop; what it hands over stands in `sockets`.
class StreamConnectorTest : public testing::TestWithParam<Family> {
protected:
    StreamConnectorTest() {
        connector->setConnectedCallback([this](std::unique_ptr<StreamSocket> socket) {
            EXPECT_TRUE(socket->getPeerAddress().isValid());
            sockets.push_back(std::move(socket));
        });
    }
    bool connected(size_t count, int deadlineMs = 30000) {
        return runUntil(
            loop, [&] { return sockets.size() == count; }, deadlineMs);
    }
    bool logged(const std::string& text, int count = 1) {
        return runUntil(loop, [&] { return log.count(text) == count; });
    }

    LogCapture log;
    EventLoop loop;
    std::unique_ptr<StreamConnector> connector = std::make_unique<StreamConnector>(&loop, "test");
    std::vector<std::unique_ptr<StreamSocket>> sockets;
};

TEST_P(StreamConnectorTest, WithoutRetryARefusalEndsTheMatter) {
    EXPECT_FALSE(connector->restart(100)) << "no address yet";
    const InetAddress addr = deadAddress(GetParam());
    EXPECT_TRUE(!connector->start(addr, 0) || logged("StreamConnector::connect failed"));
    EXPECT_FALSE(log.has("Retry connecting"));
    PeerListener late(addr);
    EXPECT_TRUE(connector->restart(1000));
    EXPECT_TRUE(connected(1));
}

TEST_P(StreamConnectorTest, RetriesAfterDoublingDelaysAndASuccessResetsThem) {
    const InetAddress addr = deadAddress(GetParam());
    const auto retryIn = [&](int delayMs) {
        return " StreamConnector::retry - Retry connecting to " + addr.toString() + " in " +
               std::to_string(delayMs) + " milliseconds";
    };
    connector->setRetry(true);
    EXPECT_TRUE(connector->start(addr, 500)) << "a scheduled retry is no failure";
    EXPECT_TRUE(logged(retryIn(1000), 2));
    for (const int delayMs : {100, 200, 400, 800}) {
        EXPECT_EQ(log.count(retryIn(delayMs)), 1) << delayMs;
    }
    {
        PeerListener late(addr);
        EXPECT_TRUE(connected(1));
    }
    connector->restart(500);
    EXPECT_TRUE(logged(retryIn(100), 2));
    std::atomic<bool> stopped{false};
    std::thread other([&] {
        connector->stop();
        stopped = true;
    });
    EXPECT_TRUE(runUntil(loop, [&] { return stopped.load(); }));
    other.join();
    const int tries = log.count("Retry connecting");
    EXPECT_FALSE(runUntil(
        loop, [&] { return log.count("Retry connecting") != tries; }, 300));
}

/// A socket that found the queue of a Unix listener full looks writable and free of errors, but is
/// not connected.
TEST_P(StreamConnectorTest, FullQueueIsNoSuccess) {
    FullListener full(GetParam());
    connector->setRetry(true);
    EXPECT_TRUE(connector->start(full.listener.addr(), 200));
    EXPECT_TRUE(logged("Retry connecting"));
    EXPECT_EQ(log.has(" StreamConnector::connect timeout for "), GetParam() == Family::Tcp);
    EXPECT_TRUE(sockets.empty());
    do {
        ASSERT_TRUE(full.listener.accept().connected());  // makes room
    } while (!connected(1, 100));
}

TEST_P(StreamConnectorTest, SetupCallbackPreparesRefusesOrStops) {
    PeerListener listener(freshAddress(GetParam()));
    bool allow = true;
    bool stop = false;
    connector->setRetry(true);
    connector->setSocketSetupCallback([&](StreamSocket* socket) {
        EXPECT_GE(socket->fd(), 0);
        if (stop) {
            connector->stop();
        }
        errno = EPERM;
        return allow;
    });
    EXPECT_TRUE(connector->start(listener.addr(), 500));
    EXPECT_TRUE(connected(1));

    const long before = openDescriptors();
    allow = false;
    EXPECT_FALSE(connector->start(listener.addr(), 500));
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(log.count("]StreamConnector::connect socket setup failed for " +
                        listener.addr().toString() + ": Operation not permitted"),
              1);
    allow = stop = true;
    EXPECT_FALSE(connector->start(listener.addr(), 500));
    EXPECT_EQ(errno, ECANCELED);
    EXPECT_EQ(sockets.size(), 1u);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(log.has("Retry connecting")) << "a refusal is final";
}

TEST_P(StreamConnectorTest, ConnectedCallbackMayStartAgainOrDestroyTheConnector) {
    PeerListener listener(freshAddress(GetParam()));
    connector->setConnectedCallback([&](std::unique_ptr<StreamSocket> socket) {
        sockets.push_back(std::move(socket));
        if (sockets.size() < 3) {
            connector->start(listener.addr(), 1000);
        } else {
            connector.reset();
        }
    });
    EXPECT_TRUE(connector->start(listener.addr(), 1000));
    EXPECT_TRUE(connected(3));
}

INSTANTIATE_TEST_SUITE_P(Families, StreamConnectorTest, testing::Values(Family::Tcp, Family::Unix),
                         testing::PrintToStringParamName());

/// A Unix connect is never under way.
class TcpConnectorTest : public StreamConnectorTest {};
INSTANTIATE_TEST_SUITE_P(Tcp, TcpConnectorTest, testing::Values(Family::Tcp));

TEST_P(TcpConnectorTest, OneAttemptAtATime) {
    FullListener full(Family::Tcp);
    EXPECT_TRUE(connector->start(full.listener.addr(), 0));
    EXPECT_FALSE(connector->start(full.listener.addr(), 0));
    EXPECT_EQ(errno, EALREADY);
    connector->stop();
    EXPECT_TRUE(connector->start(full.listener.addr(), 1));
    EXPECT_TRUE(logged("connect timeout"));
    EXPECT_TRUE(sockets.empty());
}

TEST_P(TcpConnectorTest, BesideALoopThatDoesNotRunStopIsIgnoredAndDestructionWaits) {
    const long before = openDescriptors();
    {
        FullListener full(Family::Tcp);
        ASSERT_TRUE(connector->start(full.listener.addr(), 60000));
        std::thread([&] {
            connector->stop();
            connector.reset();
        }).join();
        EXPECT_EQ(log.count(" StreamConnector::stop ignored for " +
                            full.listener.addr().toString() + ": event loop is not running"),
                  2);
    }
    EXPECT_TRUE(runUntil(loop, [&] { return openDescriptors() == before; }));
}

}  // namespace
