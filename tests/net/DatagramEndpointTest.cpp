#include "Vantel/Orbel/DatagramEndpoint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/UdpClient.h"
#include "Vantel/Orbel/UdpServer.h"
#include "Vantel/Orbel/UdpSocket.h"
#include "tests/net/StreamTestSupport.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Orbel;
using OrbelTest::LogCapture;
using OrbelTest::LoopThread;
using OrbelTest::waitFor;

namespace {

std::string textOf(const NetBuffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size());
}

/// What a message callback got, readable from any thread.
class Inbox {
public:
    void add(const NetBuffer& buffer) {
        std::lock_guard<std::mutex> guard(mMutex);
        mTexts.push_back(textOf(buffer));
    }
    std::vector<std::string> texts() const {
        std::lock_guard<std::mutex> guard(mMutex);
        return mTexts;
    }
    bool waitForCount(size_t count) const {
        return waitFor([&] { return texts().size() >= count; });
    }

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mTexts;
};

/// A peer that sends to `to`.
class Sender {
public:
    explicit Sender(const InetAddress& to) : mSocket(to.family(), false), mTo(to) {}
    bool send(const std::string& text) {
        return mSocket.sendTo(text.data(), text.size(), mTo, 0) ==
               static_cast<ssize_t>(text.size());
    }

private:
    DatagramSocket mSocket;
    InetAddress mTo;
};

/// Everything in one thread: runs the loop until `done`, at most for 30 s.
template <class Condition>
bool runUntil(EventLoop& loop, Condition done) {
    loop.setMode(kLoopTimed);
    loop.setTimeout(5);
    for (int i = 0; i < 6000 && !done(); ++i) {
        loop.loop();
    }
    return done();
}

/// An endpoint on a loopback port, in this thread.
struct Bound {
    Bound() : endpoint(std::make_unique<DatagramEndpoint>(&loop, "bound")) {
        EXPECT_TRUE(endpoint->bind(InetAddress::createLoopback4(0)));
    }
    EventLoop loop;
    std::unique_ptr<DatagramEndpoint> endpoint;
};

/// Every datagram comes back once, in order and whole, with at most kWindow of them on their way.
TEST(DatagramEndpointTest, LosesNothingOnLoopbackAtABoundedRate) {
    constexpr int kCount = 4000;
    constexpr int kWindow = 32;
    const LoopThread serverLoop;
    const LoopThread clientLoop;
    UdpServer server(serverLoop.get(), "server");
    server.setMessageCallback([](UdpServer* self, NetBuffer* buffer, const InetAddress& peer) {
        EXPECT_EQ(self->sendTo(buffer->data(), buffer->size(), peer, 0),
                  static_cast<ssize_t>(buffer->size()));
    });
    ASSERT_TRUE(server.initial(InetAddress::createLoopback4(0), "", false));
    ASSERT_NE(server.listenAddr().toPort(), 0);
    ASSERT_TRUE(server.start());

    const auto content = [](int i) {
        return std::to_string(i) + std::string(static_cast<size_t>(i * 37 % 1400), 'x');
    };
    std::atomic<int> received{0};
    std::atomic<int> wrong{0};
    UdpClient client(clientLoop.get(), "client");
    client.setMessageCallback([&](UdpClient* self, NetBuffer* buffer, const InetAddress& peer) {
        const bool good = textOf(*buffer) == content(received) &&
                          peer.toString() == self->serverAddr().toString();
        wrong += good ? 0 : 1;
        ++received;
    });
    ASSERT_TRUE(client.initial("127.0.0.1", server.listenAddr().toPort(), false));
    EXPECT_NE(client.localAddr().toPort(), 0);
    ASSERT_TRUE(client.start());
    for (int i = 0; i < kCount; ++i) {
        ASSERT_TRUE(waitFor([&] { return i - received < kWindow; })) << "lost, at " << i;
        const std::string text = content(i);
        ASSERT_EQ(client.send(text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    EXPECT_TRUE(waitFor([&] { return received == kCount; })) << received;
    EXPECT_EQ(wrong, 0);
}

TEST(DatagramEndpointTest, DeliversEmptyDatagramsAndCutsLongOnes) {
    Bound bound;
    Inbox inbox;
    bound.endpoint->setMessageCallback(
        [&](DatagramEndpoint*, NetBuffer* buffer, const InetAddress&) { inbox.add(*buffer); });
    bound.endpoint->setMaxDatagramSize(100);
    bound.endpoint->setMaxDatagramSize(0);
    ASSERT_TRUE(bound.endpoint->start());
    Sender sender(bound.endpoint->localAddr());
    const std::string text = std::string(100, 'a') + std::string(100, 'b');
    for (const std::string& each : {text, std::string(), text.substr(0, 7)}) {
        ASSERT_TRUE(sender.send(each));
    }
    ASSERT_TRUE(runUntil(bound.loop, [&] { return inbox.texts().size() == 3; }));
    EXPECT_EQ(inbox.texts(), (std::vector<std::string>{text.substr(0, 100), "", "aaaaaaa"}));
}

TEST(DatagramEndpointTest, HearsAMulticastGroupOnLoopback) {
    const InetAddress loopback = InetAddress::createLoopback4(0);
    const LoopThread loop;
    Inbox inbox;
    UdpServer server(loop.get(), "group");
    server.setMessageCallback(
        [&](UdpServer*, NetBuffer* buffer, const InetAddress&) { inbox.add(*buffer); });
    ASSERT_TRUE(server.initial(InetAddress::createAny4(0), "", true));
    const auto group = InetAddress::createIPv4(server.listenAddr().toPort(), "239.255.41.7");
    if (!server.getSocket()->joinMulticastGroup(group, &loopback)) {
        GTEST_SKIP() << "no multicast on the loopback interface: " << strerror(errno);
    }
    ASSERT_TRUE(server.start());

    UdpSocket sender(AF_INET, false);
    const in_addr interface = loopback.getSockAddr4()->sin_addr;
    ASSERT_TRUE(sender.setSocketOption(IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface));
    ASSERT_TRUE(sender.setMulticastTTL(0) && sender.setMulticastLoop(true));
    if (sender.sendTo("pose", 4, group, 0) < 0) {
        GTEST_SKIP() << "no multicast route on loopback: " << strerror(errno);
    }
    ASSERT_TRUE(inbox.waitForCount(1));
    EXPECT_EQ(inbox.texts().front(), "pose");
}

TEST(DatagramEndpointTest, ErrorsOfAClosedPeerAreToldAndEndNothing) {
    const LogCapture log;
    EventLoop loop;
    InetAddress nobody;
    {
        UdpSocket gone(AF_INET, true);
        ASSERT_TRUE(gone.bind(InetAddress::createLoopback4(0)));
        nobody = gone.getLocalAddress();
    }
    int error = 0;
    Inbox inbox;
    UdpClient client(&loop, "lonely");
    client.setErrorCallback([&](UdpClient*, int number) { error = number; });
    client.setMessageCallback(
        [&](UdpClient*, NetBuffer* buffer, const InetAddress&) { inbox.add(*buffer); });
    ASSERT_TRUE(client.initial(nobody));
    ASSERT_TRUE(client.start());
    ASSERT_EQ(client.send("a", 1, 0), 1);
    ASSERT_TRUE(runUntil(loop, [&] { return error != 0; }));
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_TRUE(
        log.has("DatagramEndpoint::handleError [lonely] socket error=111:Connection refused"));
    EXPECT_TRUE(client.started());

    UdpSocket back(AF_INET, true);
    ASSERT_TRUE(back.bind(nobody));
    ASSERT_EQ(back.sendTo("b", 1, client.localAddr(), 0), 1);
    EXPECT_TRUE(runUntil(loop, [&] { return inbox.texts().size() == 1; }));
}

TEST(DatagramEndpointTest, StopInACallbackEndsTheDrainAndANewSocketBeginsAnew) {
    Bound bound;
    DatagramEndpoint& endpoint = *bound.endpoint;
    Inbox inbox;
    bool again = false;
    endpoint.setMessageCallback([&](DatagramEndpoint* self, NetBuffer* buffer, const InetAddress&) {
        inbox.add(*buffer);
        self->stop();
        EXPECT_EQ(self->getSocket(), nullptr);
        again = again || (self->bind(InetAddress::createLoopback4(0)) && self->start());
    });
    ASSERT_TRUE(endpoint.start());
    Sender first(endpoint.localAddr());
    ASSERT_TRUE(first.send("one") && first.send("two"));
    ASSERT_TRUE(runUntil(bound.loop, [&] { return again; }));
    EXPECT_TRUE(endpoint.started());
    Sender second(endpoint.localAddr());
    ASSERT_TRUE(second.send("three") && second.send("four"));
    ASSERT_TRUE(runUntil(bound.loop, [&] { return !endpoint.started(); }));
    EXPECT_EQ(inbox.texts(), (std::vector<std::string>{"one", "three"}));

    EXPECT_TRUE(endpoint.initialized());
    EXPECT_FALSE(endpoint.localAddr().isValid());
    errno = 0;
    EXPECT_FALSE(endpoint.start());
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(endpoint.send("x", 1, 0), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST(DatagramEndpointTest, MayBeDestroyedByItsCallbacks) {
    const long before = OrbelTest::openDescriptors();
    {
        EventLoop loop;
        auto server = std::make_unique<UdpServer>(&loop, "server");
        int calls = 0;
        server->setMessageCallback(
            [&, held = std::string(100, 'h')](UdpServer*, NetBuffer*, const InetAddress&) {
                server.reset();
                calls += held == std::string(100, 'h') ? 1 : 100;
            });
        ASSERT_TRUE(server->initial(InetAddress::createLoopback4(0), "", false));
        ASSERT_TRUE(server->start());
        const InetAddress addr = server->listenAddr();
        Sender sender(addr);
        ASSERT_TRUE(sender.send("a") && sender.send("b"));
        ASSERT_TRUE(runUntil(loop, [&] { return calls != 0; }));
        EXPECT_EQ(calls, 1) << "the second datagram belongs to nobody";

        auto client = std::make_unique<UdpClient>(&loop, "client");
        client->setErrorCallback([&](UdpClient*, int) { client.reset(); });
        ASSERT_TRUE(client->initial(addr));  // nobody is there any more
        ASSERT_TRUE(client->start());
        ASSERT_EQ(client->send("c", 1, 0), 1);
        EXPECT_TRUE(runUntil(loop, [&] { return !client; }));
    }
    EXPECT_EQ(OrbelTest::openDescriptors(), before);
}

TEST(DatagramEndpointTest, ReadableGoesBeforeMessageAndNeitherEndsReading) {
    const LogCapture log;
    EventLoop loop;
    UdpServer server(&loop, "choosy");
    Inbox readable;
    Inbox message;
    server.setMessageCallback(
        [&](UdpServer*, NetBuffer* buffer, const InetAddress&) { message.add(*buffer); });
    server.setReadableCallback([&](UdpServer* self) {
        NetBuffer buffer(16);
        InetAddress peer;
        const ssize_t size = self->recvFrom(buffer.data(), buffer.size(), &peer, 0);
        ASSERT_GE(size, 0);
        EXPECT_EQ(peer.toIp(), "127.0.0.1");
        buffer.resize(static_cast<size_t>(size));
        readable.add(buffer);
    });
    ASSERT_TRUE(server.initial(InetAddress::createLoopback4(0), "", false));
    ASSERT_TRUE(server.start());
    Sender sender(server.listenAddr());
    ASSERT_TRUE(sender.send("one") && sender.send("two"));
    ASSERT_TRUE(runUntil(loop, [&] { return readable.texts().size() == 2; }));
    EXPECT_TRUE(message.texts().empty());
    server.setReadableCallback({});
    ASSERT_TRUE(sender.send("three"));
    EXPECT_TRUE(runUntil(loop, [&] { return message.texts().size() == 1; }));

    DatagramEndpoint deaf(&loop, "deaf");
    ASSERT_TRUE(deaf.bind(InetAddress::createLoopback4(0)));
    ASSERT_TRUE(deaf.start());
    Sender toDeaf(deaf.localAddr());
    ASSERT_TRUE(toDeaf.send("a") && toDeaf.send("b"));
    const std::string warning =
        "] DatagramEndpoint::handleRead [deaf] readable event without callback, disabling reading";
    ASSERT_TRUE(runUntil(loop, [&] { return log.has(warning); }));
    loop.loop();
    EXPECT_EQ(log.count(warning), 1);
    EXPECT_TRUE(deaf.started());
}

TEST(DatagramEndpointTest, RefusesWhatDoesNotFit) {
    const LogCapture log;
    Bound bound;
    DatagramEndpoint& endpoint = *bound.endpoint;
    const InetAddress loopback4 = InetAddress::createLoopback4(0);
    const InetAddress loopback6 = InetAddress::createLoopback6(7);
    ASSERT_TRUE(endpoint.start() && endpoint.start());
    DatagramEndpoint fresh(&bound.loop, "fresh");
    UdpClient client(&bound.loop, "client");
    UdpServer server(&bound.loop, "server");
    const auto socket = [] { return std::make_unique<DatagramSocket>(AF_INET, true); };
    const auto closed = [] { return std::make_unique<DatagramSocket>(-1); };
    char byte = 0;
    const struct {
        const char* why;
        int error;
        std::function<bool()> call;
    } cases[] = {
        {"adopt while started", EBUSY, [&] { return endpoint.initial(socket()); }},
        {"bind while started", EBUSY, [&] { return endpoint.bind(loopback4); }},
        {"connect while started", EBUSY, [&] { return endpoint.connect(loopback4, loopback4); }},
        {"no socket to adopt", EINVAL, [&] { return fresh.initial(nullptr); }},
        {"a closed socket", EINVAL, [&] { return fresh.initial(closed()); }},
        {"start before a socket", EINVAL, [&] { return fresh.start(); }},
        {"send before a socket", ENOTCONN, [&] { return fresh.send("", 0, 0) >= 0; }},
        {"recv before a socket", ENOTCONN, [&] { return client.recv(&byte, 1, 0) >= 0; }},
        {"families differ", EAFNOSUPPORT, [&] { return client.initial(loopback6, loopback4); }},
        {"no IP server", EAFNOSUPPORT, [&] { return client.initial(InetAddress("/tmp/x")); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        errno = 0;
        EXPECT_FALSE(c.call());
        EXPECT_EQ(errno, c.error);
    }
    EXPECT_TRUE(log.lines().empty());

    EXPECT_FALSE(server.initial(InetAddress("/tmp/x"), "", false));
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_TRUE(log.has("]UdpServer::initial failed: invalid listen address unix:/tmp/x"));
    ASSERT_TRUE(server.initial(loopback4, "", false) && server.start());
    ASSERT_TRUE(client.initial(server.listenAddr(), loopback4) && client.start());
    errno = 0;
    EXPECT_FALSE(server.initial(loopback4, "", false) || client.initial(server.listenAddr()));
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(log.has("]UdpServer::initial failed: server already started"));
    EXPECT_TRUE(log.has("]UdpClient::initial failed: client already started"));
}

/// What another thread does while the loop stands still: send fails, stop waits, and an endpoint
/// that is destroyed stays in the loop, unheard, until the loop runs again.
TEST(DatagramEndpointTest, OtherThreadsAndALoopThatStandsStill) {
    const long before = OrbelTest::openDescriptors();
    {
        Bound bound;
        ASSERT_TRUE(bound.endpoint->start());
        const InetAddress addr = bound.endpoint->localAddr();
        std::atomic<int> heard{0};
        bound.endpoint->setMessageCallback(
            [&](DatagramEndpoint*, NetBuffer*, const InetAddress&) { ++heard; });
        DatagramEndpoint waiting(&bound.loop, "waiting");
        ASSERT_TRUE(waiting.connect(addr));
        std::atomic<bool> stopped{false};
        std::thread stopper([&] {
            EXPECT_EQ(waiting.send("x", 1, 0), -1);
            EXPECT_EQ(errno, ESHUTDOWN);
            EXPECT_TRUE(waiting.start()) << "waits for the loop";
            EXPECT_EQ(waiting.send("y", 1, 0), 1);
            waiting.stop();
            stopped = true;
            bound.loop.quit();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_FALSE(waiting.started());
        bound.loop.loop();
        stopper.join();
        EXPECT_TRUE(stopped);

        std::thread([&] { bound.endpoint.reset(); }).join();
        const int heardBefore = heard;
        Sender sender(addr);
        ASSERT_TRUE(sender.send("z"));
        runUntil(bound.loop, [&] {
            UdpSocket same(AF_INET, true);
            return same.bind(addr);
        });
        EXPECT_EQ(heard, heardBefore);
    }
    EXPECT_EQ(OrbelTest::openDescriptors(), before);
}

/// Many threads send through one endpoint while another ends it: nobody hangs, each is told.
TEST(DatagramEndpointTest, SendersAreToldThatTheSocketHasGone) {
    const LoopThread loop;
    UdpSocket sink(AF_INET, true);
    ASSERT_TRUE(sink.bind(InetAddress::createLoopback4(0)));
    UdpClient client(loop.get(), "shared");
    ASSERT_TRUE(client.initial(sink.getLocalAddress()) && client.start());
    std::atomic<int> sent{0};
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i) {
        senders.emplace_back([&] {
            while (client.send("x", 1, 0) == 1) {
                ++sent;
            }
            EXPECT_EQ(errno, ENOTCONN);
        });
    }
    EXPECT_TRUE(waitFor([&] { return sent > 100; }));
    client.stop();
    for (std::thread& sender : senders) {
        sender.join();
    }
}

}  // namespace
