#include "Vantel/Orbel/DatagramEndpoint.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/UdpClient.h"
#include "Vantel/Orbel/UdpServer.h"
#include "Vantel/Orbel/UdpSocket.h"
#include "tests/net/LoopSupport.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/WaitFor.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

using Texts = std::vector<std::string>;

const InetAddress kLoopback = InetAddress::createLoopback4(0);

std::string textOf(const NetBuffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size());
}

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

/// A server, a client and a bare endpoint in the test's own loop; what the server and the endpoint
/// receive stands in `texts`.
class DatagramEndpointTest : public testing::Test {
protected:
    DatagramEndpointTest() {
        server->setMessageCallback([this](UdpServer*, NetBuffer* buffer, const InetAddress&) {
            texts.push_back(textOf(*buffer));
        });
        endpoint->setMessageCallback(
            [this](DatagramEndpoint*, NetBuffer* buffer, const InetAddress&) {
                texts.push_back(textOf(*buffer));
            });
    }
    /// The address of the server, now started.
    InetAddress startServer() {
        EXPECT_TRUE(server->initial(kLoopback, "", false) && server->start());
        return server->listenAddr();
    }
    InetAddress startEndpoint() {
        EXPECT_TRUE(endpoint->bind(kLoopback) && endpoint->start());
        return endpoint->localAddr();
    }
    bool received(const Texts& wanted) {
        const bool enough = runUntil(loop, [&] { return texts.size() >= wanted.size(); });
        EXPECT_EQ(texts, wanted);
        return enough;
    }

    const LogCapture log;
    EventLoop loop;
    std::unique_ptr<UdpServer> server = std::make_unique<UdpServer>(&loop, "server");
    std::unique_ptr<UdpClient> client = std::make_unique<UdpClient>(&loop, "client");
    std::unique_ptr<DatagramEndpoint> endpoint = std::make_unique<DatagramEndpoint>(&loop, "bare");
    Texts texts;
};

/// Every datagram comes back once, in order and whole, with at most kWindow of them on their way.
TEST(DatagramThreadsTest, LosesNothingOnLoopbackAtABoundedRate) {
    constexpr int kCount = 4000;
    constexpr int kWindow = 32;
    const LoopThread serverLoop;
    const LoopThread clientLoop;
    UdpServer server(serverLoop.get(), "server");
    server.setMessageCallback([](UdpServer* self, NetBuffer* buffer, const InetAddress& peer) {
        EXPECT_EQ(self->sendTo(buffer->data(), buffer->size(), peer, 0),
                  static_cast<ssize_t>(buffer->size()));
    });
    ASSERT_TRUE(server.initial(kLoopback, "", false) && server.start());

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
    ASSERT_TRUE(client.start());
    for (int i = 0; i < kCount; ++i) {
        ASSERT_TRUE(waitFor([&] { return i - received < kWindow; })) << "lost, at " << i;
        const std::string text = content(i);
        ASSERT_EQ(client.send(text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    EXPECT_TRUE(waitFor([&] { return received == kCount; })) << received;
    EXPECT_EQ(wrong, 0);
}

/// Many threads send through one endpoint while another ends it: nobody hangs, each is told.
TEST(DatagramThreadsTest, SendersAreToldThatTheSocketHasGone) {
    const LoopThread loop;
    UdpSocket sink(AF_INET, true);
    ASSERT_TRUE(sink.bind(kLoopback));
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

TEST_F(DatagramEndpointTest, DeliversEmptyDatagramsAndCutsLongOnes) {
    endpoint->setMaxDatagramSize(100);
    endpoint->setMaxDatagramSize(0);
    Sender sender(startEndpoint());
    const std::string text = std::string(100, 'a') + std::string(100, 'b');
    ASSERT_TRUE(sender.send(text) && sender.send("") && sender.send("aaaaaaa"));
    EXPECT_TRUE(received({text.substr(0, 100), "", "aaaaaaa"}));
}

TEST_F(DatagramEndpointTest, HearsAMulticastGroupOnLoopback) {
    ASSERT_TRUE(server->initial(InetAddress::createAny4(0), "", true));
    const auto group = InetAddress::createIPv4(server->listenAddr().toPort(), "239.255.41.7");
    if (!server->getSocket()->joinMulticastGroup(group, &kLoopback)) {
        GTEST_SKIP() << "no multicast on the loopback interface: " << strerror(errno);
    }
    ASSERT_TRUE(server->start());

    UdpSocket sender(AF_INET, false);
    const in_addr interface = kLoopback.getSockAddr4()->sin_addr;
    ASSERT_TRUE(sender.setSocketOption(IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface));
    ASSERT_TRUE(sender.setMulticastTTL(0) && sender.setMulticastLoop(true));
    if (sender.sendTo("pose", 4, group, 0) < 0) {
        GTEST_SKIP() << "no multicast route on loopback: " << strerror(errno);
    }
    EXPECT_TRUE(received({"pose"}));
}

TEST_F(DatagramEndpointTest, ErrorsOfAClosedPeerAreToldAndEndNothing) {
    const InetAddress nobody = startServer();
    server.reset();
    int error = 0;
    client->setErrorCallback([&](UdpClient*, int number) { error = number; });
    client->setMessageCallback([&](UdpClient*, NetBuffer* buffer, const InetAddress&) {
        texts.push_back(textOf(*buffer));
    });
    ASSERT_TRUE(client->initial(nobody) && client->start());
    ASSERT_EQ(client->send("a", 1, 0), 1);
    ASSERT_TRUE(runUntil(loop, [&] { return error != 0; }));
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_TRUE(
        log.has("DatagramEndpoint::handleError [client] socket error=111:Connection refused"));

    UdpSocket back(AF_INET, true);
    ASSERT_TRUE(back.bind(nobody));
    ASSERT_EQ(back.sendTo("b", 1, client->localAddr(), 0), 1);
    EXPECT_TRUE(received({"b"}));
}

TEST_F(DatagramEndpointTest, StopInACallbackEndsTheDrainAndANewSocketBeginsAnew) {
    bool again = false;
    endpoint->setMessageCallback(
        [&](DatagramEndpoint* self, NetBuffer* buffer, const InetAddress&) {
            texts.push_back(textOf(*buffer));
            self->stop();
            EXPECT_EQ(self->getSocket(), nullptr);
            again = again || (self->bind(kLoopback) && self->start());
        });
    Sender first(startEndpoint());
    ASSERT_TRUE(first.send("one") && first.send("two"));
    ASSERT_TRUE(runUntil(loop, [&] { return again; }));
    Sender second(endpoint->localAddr());
    ASSERT_TRUE(second.send("three") && second.send("four"));
    ASSERT_TRUE(runUntil(loop, [&] { return !endpoint->started(); }));
    EXPECT_EQ(texts, (Texts{"one", "three"}));

    EXPECT_TRUE(endpoint->initialized());
    EXPECT_FALSE(endpoint->localAddr().isValid());
    errno = 0;
    EXPECT_FALSE(endpoint->start());
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(endpoint->send("x", 1, 0), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(DatagramEndpointTest, MayBeDestroyedByItsCallbacks) {
    const long before = openDescriptors();
    int calls = 0;
    server->setMessageCallback(
        [&, held = std::string(100, 'h')](UdpServer*, NetBuffer*, const InetAddress&) {
            server.reset();
            calls += held == std::string(100, 'h') ? 1 : 100;
        });
    const InetAddress addr = startServer();
    {
        Sender sender(addr);
        ASSERT_TRUE(sender.send("a") && sender.send("b"));
    }
    ASSERT_TRUE(runUntil(loop, [&] { return calls != 0; }));
    EXPECT_EQ(calls, 1) << "the second datagram belongs to nobody";

    client->setErrorCallback([&](UdpClient*, int) { client.reset(); });
    ASSERT_TRUE(client->initial(addr) && client->start());  // nobody is there any more
    ASSERT_EQ(client->send("c", 1, 0), 1);
    EXPECT_TRUE(runUntil(loop, [&] { return !client; }));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(DatagramEndpointTest, ReadableGoesBeforeMessageAndNeitherEndsReading) {
    Texts read;
    server->setReadableCallback([&](UdpServer* self) {
        char buffer[16];
        InetAddress peer;
        const ssize_t size = self->recvFrom(buffer, sizeof buffer, &peer, 0);
        ASSERT_GE(size, 0);
        EXPECT_EQ(peer.toIp(), "127.0.0.1");
        read.emplace_back(buffer, static_cast<size_t>(size));
    });
    Sender sender(startServer());
    ASSERT_TRUE(sender.send("one") && sender.send("two"));
    ASSERT_TRUE(runUntil(loop, [&] { return read.size() == 2; }));
    EXPECT_EQ(read, (Texts{"one", "two"}));
    server->setReadableCallback({});
    ASSERT_TRUE(sender.send("three"));
    EXPECT_TRUE(received({"three"}));

    endpoint->setMessageCallback({});
    Sender toDeaf(startEndpoint());
    ASSERT_TRUE(toDeaf.send("a"));
    const std::string warning =
        "] DatagramEndpoint::handleRead [bare] readable event without callback, disabling reading";
    ASSERT_TRUE(runUntil(loop, [&] { return log.has(warning); }));
    EXPECT_FALSE(runUntil(
        loop, [&] { return log.count(warning) > 1; }, 5));
    EXPECT_TRUE(endpoint->started());
}

TEST_F(DatagramEndpointTest, RefusesWhatDoesNotFit) {
    startEndpoint();
    ASSERT_TRUE(endpoint->start()) << "second call";
    DatagramEndpoint fresh(&loop, "fresh");
    const InetAddress loopback6 = InetAddress::createLoopback6(7);
    const auto socket = [](int fd) { return std::make_unique<DatagramSocket>(fd); };
    char byte = 0;
    const struct {
        const char* why;
        int error;
        std::function<bool()> call;
    } cases[] = {
        {"adopt while started", EBUSY, [&] { return endpoint->initial(socket(dup(0))); }},
        {"bind while started", EBUSY, [&] { return endpoint->bind(kLoopback); }},
        {"connect while started", EBUSY, [&] { return endpoint->connect(kLoopback, kLoopback); }},
        {"no socket to adopt", EINVAL, [&] { return fresh.initial(nullptr); }},
        {"a closed socket", EINVAL, [&] { return fresh.initial(socket(-1)); }},
        {"start before a socket", EINVAL, [&] { return fresh.start(); }},
        {"send before a socket", ENOTCONN, [&] { return fresh.send("", 0, 0) >= 0; }},
        {"recv before a socket", ENOTCONN, [&] { return client->recv(&byte, 1, 0) >= 0; }},
        {"families differ", EAFNOSUPPORT, [&] { return client->initial(loopback6, kLoopback); }},
        {"no IP server", EAFNOSUPPORT, [&] { return client->initial(InetAddress("/tmp/x")); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        errno = 0;
        EXPECT_FALSE(c.call());
        EXPECT_EQ(errno, c.error);
    }
    EXPECT_TRUE(log.lines().empty());

    EXPECT_FALSE(server->initial(InetAddress("/tmp/x"), "", false));
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_TRUE(log.has("]UdpServer::initial failed: invalid listen address unix:/tmp/x"));
    ASSERT_TRUE(client->initial(startServer(), kLoopback) && client->start());
    EXPECT_FALSE(server->initial(kLoopback, "", false) || client->initial(server->listenAddr()));
    EXPECT_TRUE(log.has("]UdpServer::initial failed: server already started"));
    EXPECT_TRUE(log.has("]UdpClient::initial failed: client already started"));
}

/// What another thread does while the loop stands still: send fails, start and stop wait, and an
/// endpoint that is destroyed stays in the loop, unheard, until the loop runs again.
TEST_F(DatagramEndpointTest, OtherThreadsAndALoopThatStandsStill) {
    const long before = openDescriptors();
    const InetAddress addr = startEndpoint();
    DatagramEndpoint waiting(&loop, "waiting");
    ASSERT_TRUE(waiting.connect(addr));
    std::atomic<bool> stopped{false};
    std::thread other([&] {
        EXPECT_EQ(waiting.send("x", 1, 0), -1);
        EXPECT_EQ(errno, ESHUTDOWN);
        EXPECT_TRUE(waiting.start()) << "waits for the loop";
        EXPECT_EQ(waiting.send("y", 1, 0), 1);
        waiting.stop();
        stopped = true;
    });
    EXPECT_TRUE(waitFor([&] { return loop.getPendingTaskCount() == 1; }));
    EXPECT_FALSE(waiting.started());
    EXPECT_TRUE(runUntil(loop, [&] { return stopped.load(); }));
    other.join();
    EXPECT_TRUE(received({"y"}));

    std::thread([&] { endpoint.reset(); }).join();
    ASSERT_TRUE(Sender(addr).send("z"));
    EXPECT_TRUE(runUntil(loop, [&] { return openDescriptors() == before; }));
    EXPECT_TRUE(received({"y"}));
}

}  // namespace
