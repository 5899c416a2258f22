#include "Vantel/Orbel/StreamConnection.h"

#include <time.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/TcpSocket.h"
#include "tests/net/ConnectionFixture.h"
#include "tests/net/StreamTestSupport.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

class StreamConnectionTest : public ConnectionFixture {};

TEST_F(StreamConnectionTest, SendArgumentsAndTheOutputLimit) {
    const LogCapture log;
    auto connection = make();
    EXPECT_EQ(connection->send("x", 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
    connection->forceClose();
    EXPECT_EQ(connection->state(), StreamConnection::kConnecting) << "too early for that";
    connection->connectEstablished();
    EXPECT_EQ(connection->send("", 0), 0);
    EXPECT_EQ(connection->writev(nullptr, 0, 0), 0);
    EXPECT_EQ(connection->send(nullptr, 1), -1);
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

    connection->setMaxOutputBufferSize(100);
    connection->setMaxOutputBufferSize(0);
    const std::string text(101, 'x');
    EXPECT_EQ(connection->send(text), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_TRUE(log.has("]outbuffer size overflow 0, 101 100\n"));
    EXPECT_EQ(connection->send(text.data(), 100), 100);
    EXPECT_EQ(receiveFar().size(), 100u) << "nothing of the refused one";
    EXPECT_EQ(events, "connected ");
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
}

TEST_F(StreamConnectionTest, APeerThatStopsReadingGetsAllOfItLater) {
    auto connection = establish();
    EXPECT_EQ(connection->send("x", 1), 1);
    EXPECT_EQ(completes, 0) << "never before send() has returned";
    ASSERT_TRUE(runUntil([&] { return completes == 1; }));

    const std::string message = pattern(3 << 20);
    EXPECT_EQ(connection->send(message), static_cast<ssize_t>(message.size()));
    const size_t queued = connection->outputBufferSize();
    EXPECT_GT(queued, 1u << 20);
    EXPECT_FALSE(runUntil([&] { return connection->outputBufferSize() != queued; }, 20));
    EXPECT_EQ(connection->send("tail", 4), 4);
    ASSERT_TRUE(runUntil([&] { return receiveFar().size() == 1 + message.size() + 4; }));
    EXPECT_TRUE(receiveFar() == "x" + message + "tail");
    ASSERT_TRUE(runUntil([&] { return completes > 1; }));
    EXPECT_EQ(completes, 2) << "once for all that was queued";
    EXPECT_FALSE(connection->writing());
}

TEST_F(StreamConnectionTest, ShutdownSendsWhatIsQueuedAndWaitsForThePeer) {
    auto connection = establish();
    const std::string message = pattern(2 << 20);
    ASSERT_EQ(connection->send(message), static_cast<ssize_t>(message.size()));
    connection->shutdown();
    EXPECT_EQ(connection->send("x", 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
    ASSERT_TRUE(runUntilFarEnds());
    EXPECT_TRUE(receiveFar() == message);

    // What the peer still says is dropped; neither that nor its silence keeps the loop busy.
    sendFar("too late");
    const auto cpuMs = [] {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return now.tv_sec * 1000 + now.tv_nsec / 1000000;
    };
    const auto before = cpuMs();
    EXPECT_FALSE(runUntil([&] { return closes > 0; }, 200));
    EXPECT_LT(cpuMs() - before, 150) << "the loop spins";
    far.close();
    ASSERT_TRUE(runUntilClosed());
    EXPECT_EQ(events, "connected close ");
    connection->enableReading();
    EXPECT_FALSE(connection->reading()) << "a closed one takes no interest";
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
    ASSERT_TRUE(runUntilFarEnds());
    EXPECT_LT(receiveFar().size(), message.size());
}

TEST_F(StreamConnectionTest, APeerThatResetsInTheMiddleOfAMessage) {
    PeerListener listener(freshAddress(Family::Tcp));
    auto near = std::make_unique<TcpSocket>();
    near->connect(listener.addr(), 0);
    Peer peer = listener.accept();
    auto connection = keep(std::make_shared<StreamConnection>(
        &loop, "tcp", std::unique_ptr<StreamSocket>(std::move(near))));
    connection->connectEstablished();
    const std::string message = pattern(8 << 20);
    ASSERT_EQ(connection->send(message), static_cast<ssize_t>(message.size()));
    EXPECT_EQ(peer.receive(10000), message.substr(0, 10000));
    peer.reset();
    ASSERT_TRUE(runUntilClosed());
    EXPECT_EQ(events, "connected error:104 close ");
}

TEST_F(StreamConnectionTest, TheInputLimitEndsOnlyWhoDoesNotConsume) {
    const LogCapture log;
    consume = false;
    auto connection = make();
    connection->setMaxInputBufferSize(100);
    connection->connectEstablished();
    sendFar(std::string(99, 'x'));
    ASSERT_TRUE(runUntil([&] { return events == "connected message:99 "; }));
    sendFar("x");
    ASSERT_TRUE(runUntilClosed());
    EXPECT_EQ(events, "connected message:99 message:100 error:90 close ");
    EXPECT_TRUE(
        log.has("]StreamConnection::handleError [test] socket error=90:Message too long\n"));

    consume = true;
    auto second = establish();
    second->setMaxInputBufferSize(100);
    sendFar(std::string(1000, 'x'));
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
    sendFar("abcdefghij");
    ASSERT_TRUE(runUntil([&] { return got == "abcdefghij"; }));
    connection->shutdown();
    sendFar("more");
    ASSERT_TRUE(runUntil([&] { return got == "abcdefghijmore"; })) << "also while shutting down";
    far.close();
    ASSERT_TRUE(runUntilClosed());
    EXPECT_EQ(events, "connected close ");
    EXPECT_EQ(connection->writeRaw("x", 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(StreamConnectionTest, WithoutAnyReaderTheFirstByteCloses) {
    const LogCapture log;
    auto connection = make();
    connection->setMessageCallback({});
    connection->connectEstablished();
    sendFar("x");
    ASSERT_TRUE(runUntilClosed());
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
}

TEST_F(StreamConnectionTest, NothingIsCalledAfterConnectDestroyed) {
    auto value = std::make_shared<int>(7);
    auto connection = make();
    connection->setMessageCallback([&](const StreamConnectionPtr& self, NetBuffer*) {
        events += "message ";
        self->send("answer", 6);
        self->connectDestroyed();
    });
    connection->setContext(value);
    connection->connectEstablished();
    EXPECT_EQ(**connection->getMutableContext()->get<std::shared_ptr<int>>(), 7);
    sendFar("x");
    far.shutdownWrite();
    EXPECT_FALSE(runUntil([&] { return closes + completes > 0; }, 20));
    EXPECT_EQ(events, "connected message ");
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
    EXPECT_FALSE(connection->getLocalAddress(&addr, &length)) << "the length is the true one now";
    EXPECT_EQ(errno, EINVAL);
    auto none =
        std::make_shared<StreamConnection>(&loop, "none", std::unique_ptr<StreamTransport>());
    length = sizeof addr;
    EXPECT_FALSE(none->getLocalAddress(&addr, &length));
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(StreamConnectionTest, CallsOfOtherThreads) {
    auto connection = establish();
    constexpr int kThreads = 3, kMessages = 200, kLength = 5000;
    std::atomic<int> sent{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string message(kLength, static_cast<char>('a' + t));
            waitFor([&] { return loop.isRunning(); });
            for (int i = 0; i < kMessages; ++i) {
                EXPECT_TRUE(connection->connected() && connection->reading());
                sent += connection->send(message) == kLength ? 1 : 0;
            }
        });
    }
    constexpr size_t kAll = size_t{kThreads} * kMessages * kLength;
    ASSERT_TRUE(
        runUntil([&] { return receiveFar().size() == kAll && sent == kThreads * kMessages; }));
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (size_t at = 0; at < kAll; at += kLength) {
        const std::string message = receiveFar().substr(at, kLength);
        ASSERT_EQ(message, std::string(kLength, message[0])) << "messages are not mixed";
    }

    std::atomic<bool> done{false};
    std::thread other([&] {
        EXPECT_EQ(connection->send("x", 1), -1);
        EXPECT_EQ(errno, ESHUTDOWN) << "the loop does not run";
        connection->disableReading();
        waitFor([&] { return !connection->reading(); });
        sendFar("unread");
        connection->enableWriting();
        connection->disableAll();
        connection->shutdown();
        EXPECT_EQ(connection->send("x", 1), -1);
        EXPECT_EQ(errno, ENOTCONN) << "the errno of the loop's thread";
        done = true;
    });
    ASSERT_TRUE(waitFor([&] { return loop.getPendingTaskCount() > 0; }));
    ASSERT_TRUE(runUntil([&] { return done.load(); }));
    other.join();
    EXPECT_TRUE(runUntilFarEnds());
    EXPECT_FALSE(connection->reading() || connection->writing());
    EXPECT_EQ(events, "connected ");
}

TEST_F(StreamConnectionTest, DirectReadsBelongToTheLoop) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto connection = make();
    char byte;
    EXPECT_DEATH(std::thread([&] { connection->recv(&byte, 1, 0); }).join(),
                 "isInLoopThread\\(\\)");
}

}  // namespace
