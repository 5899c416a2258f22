#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Orbel/StreamSocket.h"
#include "tests/net/ConnectionFixture.h"

using namespace Vantel::Orbel;

namespace {

using Status = TransportStatus;

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
        calls += "r";
        ++reads;
        if (takeEvent) {  // the event is used up, whatever the answer says
            char junk[4096];
            while (mSocket->recv(junk, sizeof junk, 0) > 0) {
            }
        }
        if (readAll) {
            std::memset(buffer, 'a', length);
            return {Status::kOk, static_cast<int64_t>(length), 0};
        }
        const TransportResult result = take(readAnswers, Status::kWantRead);
        std::memset(buffer, 'a', static_cast<size_t>(std::max<int64_t>(result.bytes, 0)));
        return result;
    }
    TransportResult write(const void* buffer, size_t length, int) override {
        calls += "w";
        ++writes;
        TransportResult result = take(writeAnswers, Status::kWantWrite);
        if (result.bytes == kAll) {
            result.bytes = static_cast<int64_t>(length);
        }
        written.append(static_cast<const char*>(buffer),
                       static_cast<size_t>(std::max<int64_t>(result.bytes, 0)));
        return result;
    }
    TransportResult shutdownWrite() override {
        calls += "s";
        return take(shutdowns, Status::kWantWrite);
    }

    static constexpr int64_t kAll = 1 << 30;

    std::deque<TransportResult> handshakes, readAnswers, writeAnswers, shutdowns;
    std::string calls, written;
    int reads = 0, writes = 0;
    bool readAll = false, takeEvent = true;

private:
    static TransportResult take(std::deque<TransportResult>& answers, Status otherwise) {
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

class StreamConnectionTransportTest : public ConnectionFixture {
protected:
    StreamConnectionTransportTest() {
        auto owned = std::make_unique<ScriptedTransport>(makeNear());
        transport = owned.get();
        connection = keep(std::make_shared<StreamConnection>(&loop, "test", std::move(owned)));
    }
    /// One readable event.
    void poke() { ASSERT_EQ(far.send("!", 1, 0), 1); }
    bool runUntilCalls(const std::string& calls) {
        return runUntil([&] { return transport->calls == calls; }, 5000);
    }

    ScriptedTransport* transport;
    StreamConnectionPtr connection;
};

TEST_F(StreamConnectionTransportTest, Handshake) {
    transport->handshakes = {{Status::kError, -1, EINTR},
                             {Status::kWantWrite, -1, 0},
                             {Status::kWantRead, -1, 0},
                             {Status::kOk, 0, 0}};
    connection->connectEstablished();
    EXPECT_EQ(connection->state(), StreamConnection::kHandshaking);
    EXPECT_TRUE(connection->writing());
    EXPECT_EQ(connection->send("x", 1), -1);
    EXPECT_EQ(errno, ENOTCONN);
    ASSERT_TRUE(runUntil([&] { return !connection->writing(); }));
    EXPECT_EQ(events, "");
    poke();
    ASSERT_TRUE(runUntil([&] { return connection->connected(); }));
    EXPECT_TRUE(connection->reading());
    ASSERT_TRUE(runUntilCalls("r")) << "what the handshake left to read";
    EXPECT_EQ(events, "connected ");
}

TEST_F(StreamConnectionTransportTest, AnEventReadsAtMost4MiBIn32Reads) {
    transport->readAll = true;
    int readsInEvent = 0;
    connection->setMessageCallback([&](const StreamConnectionPtr&, NetBuffer* buffer) {
        events += "message:" + std::to_string(buffer->size()) + " ";
        buffer->clear();
        loop.queueInLoop([&] {
            readsInEvent = readsInEvent == 0 ? transport->reads : readsInEvent;
            transport->readAll = false;
        });
    });
    connection->connectEstablished();
    poke();
    ASSERT_TRUE(runUntil([&] { return readsInEvent != 0; }));
    EXPECT_EQ(readsInEvent, 32);
    EXPECT_EQ(events, "connected message:4194304 ") << "once for all of them";

    // Small pieces: the number of reads is the limit.
    events.clear();
    transport->reads = readsInEvent = 0;
    transport->readAll = true;
    connection->setMaxInputBufferSize(1000);
    poke();
    ASSERT_TRUE(runUntil([&] { return readsInEvent != 0; }));
    EXPECT_EQ(readsInEvent, 32);
    EXPECT_EQ(events.find("message:1000 message:1000 "), 0u) << events;
}

TEST_F(StreamConnectionTransportTest, ReadOutcomes) {
    const struct {
        const char* why;
        std::deque<TransportResult> answers;
        const char *events, *calls;
    } cases[] = {
        {"a short read ends the event", {{Status::kOk, 5, 0}}, "message:5 ", "r"},
        {"interrupted", {{Status::kError, -1, EINTR}, {Status::kOk, 5, 0}}, "message:5 ", "rr"},
        {"nothing", {{Status::kOk, 0, 0}}, "", "r"},
        {"data, then the end",
         {{Status::kOk, 0x20000, 0}, {Status::kClosed, -1, 0}},
         "message:131072 close ",
         "rr"},
        {"data, then a failure",
         {{Status::kOk, 0x20000, 0}, {Status::kError, -1, ECONNRESET}},
         "message:131072 error:104 close ",
         "rr"},
    };
    connection->connectEstablished();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        auto owned = std::make_unique<ScriptedTransport>(makeNear());
        transport = owned.get();
        auto each = keep(std::make_shared<StreamConnection>(&loop, "each", std::move(owned)));
        transport->readAnswers = c.answers;
        each->connectEstablished();
        events.clear();
        poke();
        ASSERT_TRUE(runUntilCalls(c.calls));
        EXPECT_EQ(events, c.events);
        each->forceClose();
    }
}

TEST_F(StreamConnectionTransportTest, AReadThatWantsToWriteIsTriedAgainWhenWritable) {
    transport->readAnswers = {{Status::kWantWrite, -1, 0}, {Status::kOk, 3, 0}};
    connection->connectEstablished();
    poke();
    ASSERT_TRUE(runUntil([&] { return consumed == 3; }));
    EXPECT_EQ(transport->calls, "rr");
    ASSERT_TRUE(runUntil([&] { return !connection->writing(); }));
}

TEST_F(StreamConnectionTransportTest, AWriteThatWantsToReadIsTriedAgainWhenReadable) {
    connection->connectEstablished();
    transport->writeAnswers = {{Status::kWantRead, 2, 0}};
    EXPECT_EQ(connection->send("abcdef", 6), 6);
    EXPECT_FALSE(connection->writing());
    EXPECT_EQ(connection->outputBufferSize(), 4u);
    EXPECT_FALSE(runUntil([&] { return transport->writes > 1; }, 10))
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

TEST_F(StreamConnectionTransportTest, SendOutcomes) {
    const struct {
        const char* why;
        std::deque<TransportResult> answers;
        ssize_t result;
        int error;
        size_t queued;
        const char* events;
    } cases[] = {
        {"all", {kAllWritten}, 6, 0, 0, ""},
        {"short", {{Status::kOk, 2, 0}}, 6, 0, 4, ""},
        {"blocked", {{Status::kWantWrite, -1, 0}}, 6, 0, 6, ""},
        {"interrupted", {{Status::kError, -1, EINTR}}, 6, 0, 6, ""},
        {"more than there is", {{Status::kOk, 1000, 0}}, 6, 0, 0, ""},
        {"the peer is gone", {{Status::kClosed, -1, 0}}, -1, EPIPE, 0, "close "},
        {"failed", {{Status::kError, -1, ENETDOWN}}, -1, ENETDOWN, 0, "error:100 close "},
        {"failed without a reason", {{Status::kError, -1, 0}}, -1, EIO, 0, "error:5 close "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        auto owned = std::make_unique<ScriptedTransport>(makeNear());
        ScriptedTransport& each = *owned;
        connection = keep(std::make_shared<StreamConnection>(&loop, "each", std::move(owned)));
        connection->connectEstablished();
        events.clear();
        each.writeAnswers = c.answers;
        const std::string six = "abcdef" + std::string(c.result > 0 ? 1000 : 0, 'x');
        EXPECT_EQ(connection->send(six.data(), 6), c.result);
        if (c.result < 0) {
            EXPECT_EQ(errno, c.error);
        }
        EXPECT_EQ(connection->outputBufferSize(), c.queued);
        EXPECT_EQ(connection->writing(), c.queued > 0);
        EXPECT_EQ(events, c.events);
    }
}

TEST_F(StreamConnectionTransportTest, AnEventWritesAtMost4MiBIn16Writes) {
    connection->connectEstablished();
    int writesInEvent = 0;
    const auto countEvent = [&] {
        writesInEvent = transport->writes = 0;
        connection->enableWriting();
        return runUntil([&] {
            writesInEvent = transport->writes;
            return writesInEvent > 0;
        });
    };
    const std::string message = pattern(6 << 20);
    ASSERT_EQ(connection->send(message), static_cast<ssize_t>(message.size()));
    connection->disableWriting();
    transport->writeAnswers = {{Status::kOk, 4 << 20, 0}};
    ASSERT_TRUE(countEvent());
    EXPECT_EQ(connection->outputBufferSize(), message.size() - (4u << 20));

    connection->disableWriting();
    const size_t left = connection->outputBufferSize();
    std::deque<TransportResult> interrupted(40, {Status::kError, 10, EINTR});
    interrupted[16] = {Status::kWantWrite, 1, 0};  // seen only by a second event
    transport->writeAnswers = interrupted;
    ASSERT_TRUE(countEvent());
    ASSERT_TRUE(runUntil([&] { return transport->writes >= 17; }));
    EXPECT_EQ((left - connection->outputBufferSize()) % 10, 1u);
    transport->writeAnswers = {kAllWritten};
    ASSERT_TRUE(runUntil([&] { return connection->outputBufferSize() == 0; }));
    EXPECT_TRUE(transport->written == message);
}

TEST_F(StreamConnectionTransportTest, ShutdownNeedsBothDirections) {
    connection->connectEstablished();
    transport->shutdowns = {{Status::kError, -1, EINTR},
                            {Status::kWantRead, -1, 0},
                            {Status::kWantWrite, -1, 0},
                            {Status::kOk, 0, 0}};
    connection->shutdown();
    EXPECT_EQ(transport->calls, "ss");
    EXPECT_FALSE(connection->writing());
    transport->takeEvent = true;
    poke();
    ASSERT_TRUE(runUntil([&] { return transport->shutdowns.empty(); }));
    transport->readAnswers = {{Status::kOk, 100, 0}, {Status::kClosed, -1, 0}};
    poke();
    ASSERT_TRUE(runUntil([&] { return closes == 1 || (poke(), false); }));
    EXPECT_EQ(events, "connected close ") << "what came after the shutdown is dropped";
}

TEST_F(StreamConnectionTransportTest, HandshakesAndShutdownsThatEndTheConnection) {
    const struct {
        const char* why;
        std::deque<TransportResult> handshakes, shutdowns;
        const char *events, *calls;
    } cases[] = {
        {"failed handshake", {{Status::kError, -1, 0}}, {}, "error:5 close ", ""},
        {"none is ended in order", {{Status::kWantRead, -1, 0}}, {}, "close ", ""},
        {"closed", {}, {{Status::kClosed, -1, 0}}, "connected close ", "s"},
        {"failed", {}, {{Status::kError, -1, 0}}, "connected error:5 close ", "s"},
        {"done", {}, {{Status::kOk, 0, 0}}, "connected ", "s"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        auto owned = std::make_unique<ScriptedTransport>(makeNear());
        transport = owned.get();
        transport->handshakes = c.handshakes;
        transport->shutdowns = c.shutdowns;
        connection = keep(std::make_shared<StreamConnection>(&loop, "each", std::move(owned)));
        events.clear();
        connection->connectEstablished();
        connection->shutdown();
        EXPECT_EQ(events, c.events);
        EXPECT_EQ(transport->calls, c.calls);
    }
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
    ASSERT_TRUE(runUntil([&] { return closes == 1; }));
    EXPECT_EQ(transport->calls, "wwsrr");
    EXPECT_EQ(transport->written, "abc");
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
