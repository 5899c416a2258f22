#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "Vantel/Orbel/StreamSocket.h"
#include "tests/net/ConnectionFixture.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

using Status = TransportStatus;

/// A transport that answers what the test wrote down for each operation: h for a handshake, r for a
/// read, w for a write, s for a shutdown. Without an answer left, handshakes and reads want to read
/// on, writes and shutdowns to write on. Its socket is real, so that events come.
class ScriptedTransport : public StreamTransport {
public:
    explicit ScriptedTransport(std::unique_ptr<StreamSocket> socket) : mSocket(std::move(socket)) {}

    /// "hW r5 w*": the operation, then its answer: a number of bytes, or * for all; R or W for the
    /// direction it wants, with the bytes done so far; C for the end; E with the number of an
    /// error.
    void expect(const std::string& script) {
        std::istringstream words(script);
        for (std::string word; words >> word;) {
            answers[word[0]].push_back(parse(word.substr(1)));
        }
    }

    int fd() const override { return mSocket->fd(); }
    StreamSocket* socket() override { return mSocket.get(); }
    const StreamSocket* socket() const override { return mSocket.get(); }
    int socketError() override { return 0; }
    bool needsHandshake() const override { return answers.count('h') != 0; }
    bool supportsRawRead() const override { return false; }
    bool supportsRawWrite() const override { return false; }

    TransportResult handshake() override { return answer('h', 0, Status::kWantRead); }
    TransportResult read(void* buffer, size_t length, int) override {
        char junk[4096];
        while (mSocket->recv(junk, sizeof junk, 0) > 0) {  // the event is used up in any case
        }
        const TransportResult result = answer('r', length, Status::kWantRead);
        std::memset(buffer, 'a', static_cast<size_t>(std::max<int64_t>(result.bytes, 0)));
        return result;
    }
    TransportResult write(const void* buffer, size_t length, int) override {
        const TransportResult result = answer('w', length, Status::kWantWrite);
        const auto taken = static_cast<size_t>(std::max<int64_t>(result.bytes, 0));
        written.append(static_cast<const char*>(buffer), std::min(taken, length));
        return result;
    }
    TransportResult shutdownWrite() override { return answer('s', 0, Status::kWantWrite); }

    std::map<char, std::deque<TransportResult>> answers;
    std::string calls, written;
    std::function<void()> onCall;

private:
    static constexpr int64_t kAll = 1 << 30;

    static TransportResult parse(const std::string& text) {
        const int number = std::atoi(text.c_str() + 1);
        switch (text[0]) {
            case '*':
                return {Status::kOk, kAll, 0};
            case 'R':
                return {Status::kWantRead, number, 0};
            case 'W':
                return {Status::kWantWrite, number, 0};
            case 'C':
                return {Status::kClosed, -1, 0};
            case 'E':
                return {Status::kError, -1, number};
            default:
                return {Status::kOk, std::atoi(text.c_str()), 0};
        }
    }
    TransportResult answer(char operation, size_t length, Status otherwise) {
        calls += operation;
        if (onCall) {
            onCall();
        }
        std::deque<TransportResult>& left = answers[operation];
        if (left.empty()) {
            return {otherwise, -1, EAGAIN};
        }
        TransportResult result = left.front();
        left.pop_front();
        result.bytes = result.bytes == kAll ? static_cast<int64_t>(length) : result.bytes;
        return result;
    }

    std::unique_ptr<StreamSocket> mSocket;
};

class StreamConnectionTransportTest : public ConnectionFixture {
protected:
    StreamConnectionTransportTest() { begin(); }

    /// A new transport and connection, not yet established.
    void begin() {
        auto owned = std::make_unique<ScriptedTransport>(makeNear());
        transport = owned.get();
        connection = keep(std::make_shared<StreamConnection>(&loop, "test", std::move(owned)));
    }
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
    void send() {
        if (connection->send("abcdef", 6) != 6) {
            events += "send:" + std::to_string(errno) + " ";
        }
    }
    /// The state, the channel's interest, and the bytes queued.
    std::string state() const {
        const char* const names[] = {"disconnected", "connecting", "handshaking", "connected",
                                     "disconnecting"};
        return names[connection->state()] + std::string(" ") + (connection->reading() ? "r" : "") +
               (connection->writing() ? "w" : "") + std::to_string(connection->outputBufferSize());
    }

    ScriptedTransport* transport;
    StreamConnectionPtr connection;
};

/// What the connection makes of each outcome. The actions are e to establish, s to send six bytes,
/// d to shut down, ! for a readable event, and . to run the loop until the calls have come.
TEST_F(StreamConnectionTransportTest, OutcomesOfHandshakeReadWriteAndShutdown) {
    const struct {
        const char *why, *answers, *actions, *calls, *events, *state;
    } stories[] = {
        {"handshake interrupted, then wants to write", "hE4 hW", "e", "hh", "", "handshaking rw0"},
        {"handshake that then wants to read", "hW hR", "e.", "hh", "", "handshaking r0"},
        {"handshake with data behind it", "hR h0 r5", "e!.", "hhr", "connected message:5 ",
         "connected r0"},
        {"handshake, no time to send", "hR", "es", "h", "send:107 ", "handshaking r0"},
        {"handshake failed", "hE0", "e", "h", "error:5 close ", "disconnecting 0"},
        {"handshake refused", "hC", "e", "h", "close ", "disconnecting 0"},
        {"handshake has no orderly end", "hR", "ed", "h", "close ", "disconnecting 0"},

        {"a short read ends the event", "r5", "e!.", "r", "connected message:5 ", "connected r0"},
        {"read interrupted", "rE4 r5", "e!.", "rr", "connected message:5 ", "connected r0"},
        {"read nothing", "r0", "e!.", "r", "connected ", "connected r0"},
        {"read wants to write first", "rW r3", "e!.", "rr", "connected message:3 ", "connected r0"},
        {"data, then the end", "r131072 rC", "e!.", "rr", "connected message:131072 close ",
         "disconnecting 0"},
        {"data, then a failure", "r131072 rE104", "e!.", "rr",
         "connected message:131072 error:104 close ", "disconnecting 0"},

        {"sent whole", "w*", "es", "w", "connected ", "connected r0"},
        {"sent in part", "w2", "es", "w", "connected ", "connected rw4"},
        {"send blocked", "wW", "es", "w", "connected ", "connected rw6"},
        {"send interrupted", "wE4", "es", "w", "connected ", "connected rw6"},
        {"sent more than there is", "w1000", "es", "w", "connected ", "connected r0"},
        {"send to nobody", "wC", "es", "w", "connected close send:32 ", "disconnecting 0"},
        {"send failed", "wE100", "es", "w", "connected error:100 close send:100 ",
         "disconnecting 0"},
        {"send failed without a reason", "wE0", "es", "w", "connected error:5 close send:5 ",
         "disconnecting 0"},
        {"write wants to read, and writable is no help", "wR2", "es.", "w", "connected ",
         "connected r4"},
        {"a further send tries first what waits", "wR2 wR", "ess", "ww", "connected ",
         "connected r10"},
        {"write goes on once readable", "wR2 w*", "es!.", "wwr", "connected ", "connected r0"},

        {"shut down", "s0", "ed", "s", "connected ", "disconnecting r0"},
        {"shutdown of a stream that has ended", "sC", "ed", "s", "connected close ",
         "disconnecting 0"},
        {"shutdown failed", "sE0", "ed", "s", "connected error:5 close ", "disconnecting 0"},
        {"shutdown interrupted, then wants to read", "sE4 sR", "ed.", "ss", "connected ",
         "disconnecting r0"},
        {"shutdown in both directions; what comes behind is dropped", "sR sW s0 r100", "ed!.",
         "sssr", "connected ", "disconnecting r0"},
        {"shutdown after the rest, with a read that wants to write", "wR w* s0 rW rC", "esd!.",
         "wwsrr", "connected close ", "disconnecting 0"},
    };
    for (const auto& story : stories) {
        SCOPED_TRACE(story.why);
        begin();
        transport->expect(story.answers);
        for (const char* action = story.actions; *action != '\0'; ++action) {
            switch (*action) {
                case 'e':
                    connection->connectEstablished();
                    break;
                case 's':
                    send();
                    break;
                case 'd':
                    connection->shutdown();
                    break;
                case '!':
                    sendFar("!");
                    break;
                default:
                    runUntil([&] { return transport->calls.size() >= strlen(story.calls); });
                    runUntil([] { return false; }, 3);  // and no more than those
            }
        }
        EXPECT_EQ(transport->calls, story.calls);
        EXPECT_EQ(events, story.events);
        EXPECT_EQ(state(), story.state);
        EXPECT_EQ(transport->written, std::string("abcdef").substr(0, transport->written.size()));
    }
}

TEST_F(StreamConnectionTransportTest, AnEventReadsAtMost4MiBIn32Reads) {
    connection->connectEstablished();
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
        for (int i = 0; i < 40; ++i) {
            transport->expect("r*");
        }
        sendFar("!");
        EXPECT_EQ(callsInNextEvent(), 32u);
        EXPECT_EQ(events.find(c.events), 0u) << events;
        transport->answers.clear();
    }
}

TEST_F(StreamConnectionTransportTest, AnEventWritesAtMost4MiBIn16Writes) {
    connection->connectEstablished();
    const std::string message = pattern(6 << 20);
    ASSERT_EQ(connection->send(message), static_cast<ssize_t>(message.size()));
    transport->expect("w4194304");
    EXPECT_EQ(callsInNextEvent(), 1u) << "the bytes are spent";
    transport->answers['w'].assign(40, {Status::kError, 10, EINTR});
    EXPECT_EQ(callsInNextEvent(), 16u);
    transport->answers['w'].clear();
    transport->expect("w*");
    ASSERT_TRUE(runUntil([&] { return connection->outputBufferSize() == 0; }));
    EXPECT_TRUE(transport->written == message);
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
