#include "Vantel/Orbel/StreamConnection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/TcpSocket.h"
#include "tests/net/ConnectionFixture.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Orbel;

namespace {

using OrbelTest::LogCapture;

class StreamConnectionTest : public ConnectionFixture {};

TEST_F(StreamConnectionTest, DataBeforeTheEndOfFileIsSeenFirst) {
    auto connection = establish();
    far.send("last words", 10, 0);
    far.close();
    ASSERT_TRUE(runUntil([&] { return closes == 1; }));
    EXPECT_EQ(events, "connected message:10 close ");
    EXPECT_EQ(connection->state(), StreamConnection::kDisconnecting);
    connection->enableReading();
    EXPECT_FALSE(connection->reading()) << "a closed one takes no interest";
    connection->connectDestroyed();
    EXPECT_TRUE(connection->disconnected());
}

TEST_F(StreamConnectionTest, SendArguments) {
    LogCapture log;
    auto connection = make();
    EXPECT_EQ(connection->send("x", 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
    connection->forceClose();
    EXPECT_EQ(connection->state(), StreamConnection::kConnecting) << "too early for that";
    connection->connectEstablished();
    EXPECT_EQ(connection->send("", 0), 0);
    EXPECT_EQ(connection->send(std::string()), 0);
    EXPECT_EQ(connection->writev(nullptr, 0, 0), 0);
    char byte = 'x';
    const iovec bad[] = {{&byte, 1}, {nullptr, 1}};
    const iovec tooLong[] = {{&byte, SIZE_MAX / 2}, {&byte, 2}};
    const struct {
        const char* why;
        const iovec* vectors;
        int count, error;
    } refused[] = {
        {"negative count", bad, -1, EINVAL},
        {"null vectors", nullptr, 1, EINVAL},
        {"null base", bad, 2, EINVAL},
        {"sum too large", tooLong, 2, EMSGSIZE},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(c.why);
        errno = 0;
        EXPECT_EQ(connection->writev(c.vectors, c.count, 0), -1);
        EXPECT_EQ(errno, c.error);
    }
    EXPECT_EQ(connection->send(nullptr, 1), -1);

    connection->setMaxOutputBufferSize(100);
    connection->setMaxOutputBufferSize(0);
    const std::string text(101, 'x');
    EXPECT_EQ(connection->send(text), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_TRUE(log.has("]outbuffer size overflow 0, 101 100\n"));
    EXPECT_EQ(connection->send(text.data(), 100), 100);
    EXPECT_TRUE(connection->connected());
    char received[200];
    EXPECT_EQ(far.recv(received, sizeof received, 0), 100) << "nothing of the refused one";
}

TEST_F(StreamConnectionTest, MoreVectorsThanTheKernelTakes) {
    auto connection = establish();
    std::string text = pattern(3000);
    std::vector<iovec> vectors;
    for (char& byte : text) {
        vectors.push_back({&byte, 1});
    }
    EXPECT_EQ(connection->writev(vectors.data(), 3000, 0), 3000);
    EXPECT_EQ(connection->outputBufferSize(), 3000u - 1024);
    ASSERT_TRUE(runUntil([&] { return receiveFar().size() == text.size(); }));
    EXPECT_EQ(receiveFar(), text);
    EXPECT_TRUE(connection->connected());
}

TEST_F(StreamConnectionTest, APeerThatStopsReadingGetsAllOfItLater) {
    auto connection = make();
    int completes = 0;
    connection->setWriteCompleteCallback([&](const StreamConnectionPtr&) { ++completes; });
    connection->connectEstablished();
    const std::string message = pattern(3 << 20);
    EXPECT_EQ(connection->send(message), static_cast<ssize_t>(message.size()));
    const size_t queued = connection->outputBufferSize();
    EXPECT_GT(queued, 1u << 20);
    EXPECT_TRUE(connection->writing());
    EXPECT_FALSE(runUntil([&] { return connection->outputBufferSize() != queued; }, 20));
    EXPECT_EQ(connection->send("tail", 4), 4);
    ASSERT_TRUE(runUntil([&] { return receiveFar().size() == message.size() + 4; }));
    EXPECT_TRUE(receiveFar() == message + "tail");
    ASSERT_TRUE(runUntil([&] { return completes > 0; }));
    EXPECT_EQ(completes, 1);
    EXPECT_FALSE(connection->writing());
}

TEST_F(StreamConnectionTest, WriteCompleteRunsAfterSendHasReturned) {
    auto connection = make();
    connection->setWriteCompleteCallback(
        [&](const StreamConnectionPtr&) { events += "complete "; });
    connection->connectEstablished();
    EXPECT_EQ(connection->send("x", 1), 1);
    events += "returned ";
    ASSERT_TRUE(runUntil([&] { return events.find("complete") != std::string::npos; }));
    EXPECT_EQ(events, "connected returned complete ");
}

TEST_F(StreamConnectionTest, ShutdownSendsWhatIsQueuedAndWaitsForThePeer) {
    auto connection = establish();
    const std::string message = pattern(2 << 20);
    ASSERT_EQ(connection->send(message), static_cast<ssize_t>(message.size()));
    connection->shutdown();
    EXPECT_EQ(connection->send("x", 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
    ASSERT_TRUE(runUntil([&] {
        receiveFar();
        return farEnded;
    }));
    EXPECT_TRUE(receiveFar() == message);

    // What the peer still says is dropped; neither that nor its silence keeps the loop busy.
    far.send("too late", 8, 0);
    const auto cpuMs = [] {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return now.tv_sec * 1000 + now.tv_nsec / 1000000;
    };
    const auto before = cpuMs();
    EXPECT_FALSE(runUntil([&] { return closes > 0; }, 200));
    EXPECT_LT(cpuMs() - before, 150) << "the loop spins";
    far.close();
    ASSERT_TRUE(runUntil([&] { return closes == 1; }));
    EXPECT_EQ(events, "connected close ");
}

TEST_F(StreamConnectionTest, ForceCloseDropsTheQueue) {
    auto connection = establish();
    const std::string message = pattern(2 << 20);
    ASSERT_EQ(connection->send(message), static_cast<ssize_t>(message.size()));
    connection->forceClose();
    connection->close();
    connection->shutdown();
    EXPECT_EQ(events, "connected close ");
    EXPECT_FALSE(connection->reading() || connection->writing());
    connection->connectDestroyed();
    connection.reset();
    kept.clear();
    ASSERT_TRUE(runUntil([&] {
        receiveFar();
        return farEnded;
    }));
    EXPECT_LT(receiveFar().size(), message.size());
}

TEST_F(StreamConnectionTest, APeerThatResetsInTheMiddleOfAMessage) {
    TcpSocket listener;
    ASSERT_TRUE(listener.bind(InetAddress::createLoopback4(0)) && listener.listen(1));
    auto peer = std::make_unique<TcpSocket>();
    ASSERT_TRUE(peer->connect(listener.getLocalAddress(), 5000) &&
                listener.waitReadable(5000, nullptr));
    auto connection =
        keep(std::make_shared<StreamConnection>(&loop, "tcp", listener.accept(nullptr)));
    connection->connectEstablished();
    const std::string message = pattern(8 << 20);
    ASSERT_EQ(connection->send(message), static_cast<ssize_t>(message.size()));
    char some[10000];
    ASSERT_EQ(peer->recvAll(some, sizeof some, 0, 5000), 10000);
    const linger reset{1, 0};
    ASSERT_TRUE(peer->setSocketOption(SOL_SOCKET, SO_LINGER, &reset, sizeof reset));
    peer.reset();
    ASSERT_TRUE(runUntil([&] { return closes == 1; }));
    EXPECT_EQ(events, "connected error:104 close ");
    EXPECT_EQ(connection->send("x", 1), -1);
}

TEST_F(StreamConnectionTest, InterestAndShutdownFromAnotherThread) {
    auto connection = establish();
    std::thread other([&] {
        connection->disableReading();
        OrbelTest::waitFor([&] { return !connection->reading(); });
        far.send("unread", 6, 0);
        connection->enableWriting();
        connection->disableAll();
        connection->enableReading();
        connection->shutdown();
    });
    ASSERT_TRUE(runUntil([&] {
        receiveFar();
        return farEnded;
    }));
    other.join();
    EXPECT_FALSE(connection->writing());
    EXPECT_EQ(connection->state(), StreamConnection::kDisconnecting);
}

TEST_F(StreamConnectionTest, InputLimit) {
    LogCapture log;
    consume = false;
    auto connection = make();
    connection->setMaxInputBufferSize(100);
    connection->connectEstablished();
    far.send(std::string(99, 'x').data(), 99, 0);
    ASSERT_TRUE(runUntil([&] { return events == "connected message:99 "; }));
    far.send("x", 1, 0);
    ASSERT_TRUE(runUntil([&] { return closes == 1; }));
    EXPECT_EQ(events, "connected message:99 message:100 error:90 close ");
    EXPECT_TRUE(
        log.has("]StreamConnection::handleError [test] socket error=90:Message too long\n"));

    // Consumed in time, any amount passes through a small buffer.
    consume = true;
    events.clear();
    auto second = establish();
    second->setMaxInputBufferSize(100);
    far.send(std::string(1000, 'x').data(), 1000, 0);
    ASSERT_TRUE(runUntil([&] { return consumed == 1000; }));
    EXPECT_TRUE(second->connected());
}

TEST_F(StreamConnectionTest, ReadableStyle) {
    auto connection = make();
    std::string got;
    int calls = 0;
    connection->setReadableCallback([&](const StreamConnectionPtr& readable) {
        char buffer[4];
        if (++calls < 3) {
            return;  // not read: called again at once
        }
        const ssize_t count = readable->recv(buffer, sizeof buffer, 0);
        if (count > 0) {
            got.append(buffer, static_cast<size_t>(count));
        } else if (count == 0) {
            readable->forceClose();
        }
    });
    connection->connectEstablished();
    char byte;
    EXPECT_EQ(connection->read(&byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(connection->sendRaw("raw", 3, 0), 3);
    EXPECT_EQ(receiveFar(), "raw");
    far.send("abcdefghij", 10, 0);
    ASSERT_TRUE(runUntil([&] { return got == "abcdefghij"; }));
    connection->shutdown();
    far.send("more", 4, 0);
    ASSERT_TRUE(runUntil([&] { return got == "abcdefghijmore"; })) << "also while shutting down";
    far.close();
    ASSERT_TRUE(runUntil([&] { return closes == 1; }));
    EXPECT_EQ(events, "connected close ");
    EXPECT_EQ(connection->writeRaw("x", 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(StreamConnectionTest, WithoutAnyReaderTheFirstByteCloses) {
    LogCapture log;
    auto connection = make();
    connection->setMessageCallback({});
    connection->connectEstablished();
    far.send("x", 1, 0);
    ASSERT_TRUE(runUntil([&] { return closes == 1; }));
    EXPECT_TRUE(log.has(
        "] StreamConnection::handleRead [test] readable event without callback, closing\n"));
}

TEST_F(StreamConnectionTest, TheWritableCallbackRunsOncePerRequest) {
    auto connection = make();
    int calls = 0;
    connection->setWritableCallback([&](const StreamConnectionPtr& writable) {
        if (++calls < 3) {
            writable->enableWriting();
        }
    });
    connection->connectEstablished();
    connection->enableWriting();
    ASSERT_TRUE(runUntil([&] { return calls == 3; }));
    EXPECT_FALSE(runUntil([&] { return calls != 3; }, 10));
    EXPECT_FALSE(connection->writing());
}

TEST_F(StreamConnectionTest, NothingIsCalledAfterConnectDestroyed) {
    auto value = std::make_shared<int>(7);
    auto connection = make();
    connection->setMessageCallback([&](const StreamConnectionPtr& self, NetBuffer*) {
        events += "message ";
        self->send("answer", 6);
        self->connectDestroyed();
    });
    connection->setWriteCompleteCallback(
        [&](const StreamConnectionPtr&) { events += "complete "; });
    connection->setContext(value);
    connection->connectEstablished();
    EXPECT_EQ(**connection->getMutableContext()->get<std::shared_ptr<int>>(), 7);
    far.send("x", 1, 0);
    far.shutdownWrite();
    EXPECT_FALSE(runUntil([&] { return closes > 0; }, 20));
    EXPECT_EQ(events, "connected message ");
    EXPECT_TRUE(connection->disconnected());
    EXPECT_FALSE(connection->hasContext());
    EXPECT_EQ(value.use_count(), 1);
    connection->connectEstablished();
    EXPECT_TRUE(connection->disconnected()) << "there is no way back";
}

TEST_F(StreamConnectionTest, Addresses) {
    auto connection = establish();
    sockaddr_storage addr{};
    unsigned length = sizeof addr;
    EXPECT_TRUE(connection->getPeerAddress(&addr, &length));
    EXPECT_EQ(addr.ss_family, AF_UNIX);
    EXPECT_LT(length, sizeof addr);
    EXPECT_FALSE(connection->getLocalAddress(&addr, &length)) << "now said to be smaller";
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(connection->getLocalAddress(nullptr, &length));
    auto none =
        std::make_shared<StreamConnection>(&loop, "none", std::unique_ptr<StreamTransport>());
    length = sizeof addr;
    EXPECT_FALSE(none->getLocalAddress(&addr, &length));
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(none->fd(), -1);
}

TEST_F(StreamConnectionTest, SendFromOtherThreads) {
    auto connection = establish();
    constexpr int kThreads = 3, kMessages = 200, kLength = 5000;
    std::atomic<int> sent{0};
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string message(kLength, static_cast<char>('a' + t));
            OrbelTest::waitFor([&] { return loop.isRunning(); });
            for (int i = 0; i < kMessages; ++i) {
                sent += connection->send(message) == kLength ? 1 : 0;
                sent += connection->connected() && connection->reading() ? 0 : 1;
            }
            --running;
        });
    }
    const size_t all = size_t{kThreads} * kMessages * kLength;
    ASSERT_TRUE(runUntil([&] { return receiveFar().size() == all && running == 0; }));
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sent, kThreads * kMessages);
    for (size_t at = 0; at < all; at += kLength) {
        const std::string message = receiveFar().substr(at, kLength);
        ASSERT_EQ(message, std::string(kLength, message[0])) << "messages are not mixed";
    }

    std::thread late([&] {
        EXPECT_EQ(connection->send("x", 1), -1);
        EXPECT_EQ(errno, ESHUTDOWN) << "the loop does not run";
    });
    late.join();
    std::atomic<bool> done{false};
    std::thread failing([&] {
        OrbelTest::waitFor([&] { return loop.isRunning(); });
        connection->forceClose();
        EXPECT_EQ(connection->send("x", 1), -1);
        EXPECT_EQ(errno, ENOTCONN) << "the errno of the loop's thread";
        done = true;
    });
    EXPECT_TRUE(runUntil([&] { return done.load(); }));
    failing.join();
    EXPECT_EQ(closes, 1);
}

TEST(StreamConnectionDeathTest, DirectReadsBelongToTheLoop) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            EventLoop loop;
            auto connection =
                std::make_shared<StreamConnection>(&loop, "x", std::unique_ptr<StreamTransport>());
            std::thread([&] {
                char byte;
                connection->recv(&byte, 1, 0);
            }).join();
        },
        "isInLoopThread\\(\\)");
}

}  // namespace
