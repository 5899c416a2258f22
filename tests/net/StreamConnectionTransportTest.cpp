#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Orbel/StreamSocket.h"
#include "tests/net/ConnectionFixture.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

using Status = TransportStatus;
using Answers = std::deque<TransportResult>;

/// A transport that answers what the test queued. Without an answer left, reads want to read on,
/// writes and shutdowns want to write on. Its socket is real, so that events come.
class ScriptedTransport : public StreamTransport {
public:
    explicit ScriptedTransport(std::unique_ptr<StreamSocket> socket) : mSocket(std::move(socket)) {}

    int fd() const override { return mSocket->fd(); }
    StreamSocket* socket() override { return mSocket.get(); }
    const StreamSocket* socket() const override { return mSocket.get(); }
    int socketError() override { return 0; }
    bool needsHandshake() const override { return !handshakes.empty(); }
    bool supportsRawRead() const override { return false; }
    bool supportsRawWrite() const override { return false; }

    TransportResult handshake() override { return take(handshakes, Status::kWantRead); }
    TransportResult read(void* buffer, size_t length, int) override {
        note('r');
        char junk[4096];
        while (mSocket->recv(junk, sizeof junk, 0) > 0) {  // the event is used up in any case
        }
        const TransportResult result =
            readAll ? TransportResult{Status::kOk, static_cast<int64_t>(length), 0}
                    : take(readAnswers, Status::kWantRead);
        std::memset(buffer, 'a', static_cast<size_t>(std::max<int64_t>(result.bytes, 0)));
        return result;
    }
    TransportResult write(const void* buffer, size_t length, int) override {
        note('w');
        TransportResult result = take(writeAnswers, Status::kWantWrite);
        if (result.bytes == kAll) {
            result.bytes = static_cast<int64_t>(length);
        }
        const auto taken = static_cast<size_t>(std::max<int64_t>(result.bytes, 0));
        written.append(static_cast<const char*>(buffer), std::min(taken, length));
        return result;
    }
    TransportResult shutdownWrite() override {
        note('s');
        return take(shutdowns, Status::kWantWrite);
    }

    static constexpr int64_t kAll = 1 << 30;

    Answers handshakes, readAnswers, writeAnswers, shutdowns;
    std::string calls, written;
    std::function<void()> onCall;
    bool readAll = false;

private:
    void note(char call) {
        calls += call;
        if (onCall) {
            onCall();
        }
    }
    static TransportResult take(Answers& answers, Status otherwise) {
        if (answers.empty()) {
            return {otherwise, -1, EAGAIN};
        }
        const TransportResult result = answers.front();
        answers.pop_front();
        return result;
    }

    std::unique_ptr<StreamSocket> mSocket;
};

constexpr TransportResult kAllWritten{Status::kOk, ScriptedTransport::kAll, 0};
constexpr TransportResult kInterrupted{Status::kError, -1, EINTR};

class StreamConnectionTransportTest : public ConnectionFixture {
protected:
    StreamConnectionTransportTest() { begin(); }

    /// A new transport and connection, not yet established.
    void begin() {
        auto owned = std::make_unique<ScriptedTransport>(makeNear());
        transport = owned.get();
        connection = keep(std::make_shared<StreamConnection>(&loop, "test", std::move(owned)));
    }
    /// One readable event.
    void poke() { sendFar("!"); }
    /// How many calls of the transport the next event makes.
    size_t callsInNextEvent() {
        size_t made = 0;
        transport->calls.clear();
        transport->onCall = [&] {
            if (transport->calls.size() == 1) {
                loop.queueInLoop([&] { made = transport->calls.size(); });
            }
        };
        EXPECT_TRUE(runUntil([&] { return made != 0; }));
        transport->onCall = {};
        return made;
    }

    ScriptedTransport* transport;
    StreamConnectionPtr connection;
};

TEST_F(StreamConnectionTransportTest, Handshake) {
    transport->handshakes = {
        kInterrupted, {Status::kWantWrite, -1, 0}, {Status::kWantRead, -1, 0}, {Status::kOk, 0, 0}};
    connection->connectEstablished();
    EXPECT_EQ(connection->state(), StreamConnection::kHandshaking);
    EXPECT_TRUE(connection->writing());
    EXPECT_EQ(connection->send("x", 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
    ASSERT_TRUE(runUntil([&] { return !connection->writing(); }));
    EXPECT_EQ(events, "");
    poke();
    ASSERT_TRUE(runUntil([&] { return connection->connected(); }));
    ASSERT_TRUE(runUntil([&] { return transport->calls == "r"; })) << "what is left to read";
    EXPECT_EQ(events, "connected ");
}

TEST_F(StreamConnectionTransportTest, AnEventReadsAtMost4MiBIn32Reads) {
    connection->connectEstablished();
    transport->readAll = true;
    const struct {
        const char *why, *events;
        size_t maxInput;
    } cases[] = {
        {"large pieces, shown once", "message:4194304 ", 0},
        {"small pieces, shown each", "message:1000 message:1000 ", 1000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        events.clear();
        connection->setMaxInputBufferSize(c.maxInput);
        poke();
        EXPECT_EQ(callsInNextEvent(), 32u);
        EXPECT_EQ(events.find(c.events), 0u) << events;
    }
}

TEST_F(StreamConnectionTransportTest, ReadOutcomes) {
    const struct {
        const char* why;
        Answers answers;
        const char *calls, *events;
    } cases[] = {
        {"a short read ends the event", {{Status::kOk, 5, 0}}, "r", "message:5 "},
        {"interrupted", {kInterrupted, {Status::kOk, 5, 0}}, "rr", "message:5 "},
        {"nothing", {{Status::kOk, 0, 0}}, "r", ""},
        {"wants to write first",
         {{Status::kWantWrite, -1, 0}, {Status::kOk, 3, 0}},
         "rr",
         "message:3 "},
        {"data, then the end",
         {{Status::kOk, 0x20000, 0}, {Status::kClosed, -1, 0}},
         "rr",
         "message:131072 close "},
        {"data, then a failure",
         {{Status::kOk, 0x20000, 0}, {Status::kError, -1, ECONNRESET}},
         "rr",
         "message:131072 error:104 close "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        begin();
        transport->readAnswers = c.answers;
        connection->connectEstablished();
        poke();
        ASSERT_TRUE(runUntil([&] { return transport->calls == c.calls; }));
        EXPECT_EQ(events, std::string("connected ") + c.events);
        ASSERT_TRUE(runUntil([&] { return !connection->writing(); }));
    }
}

TEST_F(StreamConnectionTransportTest, SendOutcomes) {
    const struct {
        const char* why;
        Answers answers;
        ssize_t result;
        int error;
        size_t queued;
        const char* events;
    } cases[] = {
        {"all", {kAllWritten}, 6, 0, 0, ""},
        {"short", {{Status::kOk, 2, 0}}, 6, 0, 4, ""},
        {"blocked", {{Status::kWantWrite, -1, 0}}, 6, 0, 6, ""},
        {"interrupted", {kInterrupted}, 6, 0, 6, ""},
        {"more than there is", {{Status::kOk, 1000, 0}}, 6, 0, 0, ""},
        {"the peer is gone", {{Status::kClosed, -1, 0}}, -1, EPIPE, 0, "close "},
        {"failed", {{Status::kError, -1, ENETDOWN}}, -1, ENETDOWN, 0, "error:100 close "},
        {"failed without a reason", {{Status::kError, -1, 0}}, -1, EIO, 0, "error:5 close "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        begin();
        connection->connectEstablished();
        transport->writeAnswers = c.answers;
        errno = 0;
        EXPECT_EQ(connection->send("abcdef", 6), c.result);
        EXPECT_EQ(c.result < 0 ? errno : 0, c.error);
        EXPECT_EQ(connection->outputBufferSize(), c.queued);
        EXPECT_EQ(connection->writing(), c.queued > 0);
        EXPECT_EQ(events, std::string("connected ") + c.events);
    }
}

TEST_F(StreamConnectionTransportTest, AWriteThatWantsToReadIsTriedAgainWhenReadable) {
    connection->connectEstablished();
    transport->writeAnswers = {{Status::kWantRead, 2, 0}};
    EXPECT_EQ(connection->send("abcdef", 6), 6);
    EXPECT_FALSE(connection->writing());
    EXPECT_EQ(connection->outputBufferSize(), 4u);
    EXPECT_FALSE(runUntil([&] { return transport->calls.size() > 1; }, 10))
        << "being writable is no help";
    // A further send tries first what waits, and queues behind it.
    transport->writeAnswers = {{Status::kWantRead, -1, 0}};
    EXPECT_EQ(connection->send("gh", 2), 2);
    EXPECT_EQ(connection->outputBufferSize(), 6u);
    transport->writeAnswers = {kAllWritten};
    poke();
    ASSERT_TRUE(runUntil([&] { return connection->outputBufferSize() == 0; }));
    EXPECT_EQ(transport->written, "abcdefgh");
    EXPECT_EQ(transport->calls, "wwwr");
    EXPECT_EQ(events, "connected ");
}

TEST_F(StreamConnectionTransportTest, AnEventWritesAtMost4MiBIn16Writes) {
    connection->connectEstablished();
    const std::string message = pattern(6 << 20);
    ASSERT_EQ(connection->send(message), static_cast<ssize_t>(message.size()));
    transport->writeAnswers = {{Status::kOk, 4 << 20, 0}};
    EXPECT_EQ(callsInNextEvent(), 1u) << "the bytes are spent";
    transport->writeAnswers = Answers(40, {Status::kError, 10, EINTR});
    EXPECT_EQ(callsInNextEvent(), 16u);
    transport->writeAnswers = Answers(100, kAllWritten);
    ASSERT_TRUE(runUntil([&] { return connection->outputBufferSize() == 0; }));
    EXPECT_TRUE(transport->written == message);
}

TEST_F(StreamConnectionTransportTest, ShutdownNeedsBothDirections) {
    connection->connectEstablished();
    transport->shutdowns = {
        kInterrupted, {Status::kWantRead, -1, 0}, {Status::kWantWrite, -1, 0}, {Status::kOk, 0, 0}};
    connection->shutdown();
    EXPECT_EQ(transport->calls, "ss");
    EXPECT_FALSE(connection->writing());
    poke();
    ASSERT_TRUE(runUntil([&] { return transport->shutdowns.empty(); }));
    transport->readAnswers = {{Status::kOk, 100, 0}, {Status::kClosed, -1, 0}};
    ASSERT_TRUE(runUntil([&] { return closes == 1 || (poke(), false); }));
    EXPECT_EQ(events, "connected close ") << "what came after the shutdown is dropped";
}

TEST_F(StreamConnectionTransportTest, WhileShuttingDownAReadMayWantToWrite) {
    connection->connectEstablished();
    transport->writeAnswers = {{Status::kWantRead, -1, 0}};
    ASSERT_EQ(connection->send("abc", 3), 3);
    connection->shutdown();
    transport->writeAnswers = {kAllWritten};
    transport->shutdowns = {{Status::kOk, 0, 0}};
    transport->readAnswers = {{Status::kWantWrite, -1, 0}, {Status::kClosed, -1, 0}};
    poke();
    ASSERT_TRUE(runUntilClosed());
    EXPECT_EQ(transport->calls, "wwsrr");
    EXPECT_EQ(transport->written, "abc");
}

TEST_F(StreamConnectionTransportTest, HandshakesAndShutdownsThatEndTheConnection) {
    const struct {
        const char* why;
        Answers handshakes, shutdowns;
        const char *calls, *events;
    } cases[] = {
        {"failed handshake", {{Status::kError, -1, 0}}, {}, "", "error:5 close "},
        {"none is ended in order", {{Status::kWantRead, -1, 0}}, {}, "", "close "},
        {"closed", {}, {{Status::kClosed, -1, 0}}, "s", "connected close "},
        {"failed", {}, {{Status::kError, -1, 0}}, "s", "connected error:5 close "},
        {"done", {}, {{Status::kOk, 0, 0}}, "s", "connected "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        begin();
        transport->handshakes = c.handshakes;
        transport->shutdowns = c.shutdowns;
        connection->connectEstablished();
        connection->shutdown();
        EXPECT_EQ(events, c.events);
        EXPECT_EQ(transport->calls, c.calls);
    }
}

TEST_F(StreamConnectionTransportTest, NoReadingOrWritingPastAnEngine) {
    connection->connectEstablished();
    char byte;
    EXPECT_EQ(connection->recv(&byte, 1, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(connection->sendRaw(&byte, 1, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
