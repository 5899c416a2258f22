#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <string>

#include "Vantel/Orbel/PlainStreamTransport.h"
#include "Vantel/Orbel/SslContext.h"
#include "Vantel/Orbel/SslEngine.h"
#include "Vantel/Orbel/SslStreamTransport.h"
#include "tests/net/SocketPair.h"
#include "tests/support/OpenDescriptors.h"

using namespace OrbelTest;
using namespace Vantel::Orbel;

namespace {

using Status = TransportStatus;

void expectResult(const TransportResult& result, Status status, int64_t bytes, int error) {
    EXPECT_EQ(static_cast<int>(result.status), static_cast<int>(status));
    EXPECT_EQ(result.bytes, bytes);
    EXPECT_EQ(result.error, error);
}

/// Answers what the test queued, and notes what it was asked.
class FakeEngine : public SslEngine {
public:
    explicit FakeEngine(std::string& calls) : mCalls(calls) {}
    ~FakeEngine() override { mCalls += "~"; }
    TransportResult handshake() override { return next("h"); }
    TransportResult read(void*, size_t length) override { return next("r", length); }
    TransportResult write(const void*, size_t length) override { return next("w", length); }
    TransportResult shutdown() override { return next("s"); }

    std::deque<TransportResult> answers;

private:
    TransportResult next(const char* call, size_t length = 0) {
        mCalls += call + std::to_string(length);
        const TransportResult answer = answers.front();
        answers.pop_front();
        return answer;
    }
    std::string& mCalls;
};

class FakeContext : public SslContext {
public:
    std::unique_ptr<SslEngine> createEngine(StreamSocket&) override { return std::move(engine); }
    std::unique_ptr<SslEngine> engine;
};

/// What connections over real sockets do not meet; those test the rest.
TEST(TransportTest, PlainSocketOutcomes) {
    SocketPair pair;
    PlainStreamTransport transport(pair.takeNear());
    char buffer[16] = {};
    expectResult(transport.read(nullptr, 0, 0), Status::kOk, 0, 0);
    expectResult(transport.read(buffer, 1, 0), Status::kWantRead, -1, EAGAIN);
    const iovec vectors[] = {{buffer, 2}, {nullptr, 0}, {buffer, 1}};
    expectResult(transport.writev(vectors, 3, 0), Status::kOk, 3, 0);
    expectResult(transport.writev(nullptr, 0, 0), Status::kOk, 0, 0);
    expectResult(transport.writev(vectors, -1, 0), Status::kError, -1, EINVAL);
    expectResult(transport.shutdownWrite(), Status::kOk, 0, 0);
    expectResult(transport.write("x", 1, 0), Status::kError, -1, EPIPE);

    PlainStreamTransport none(nullptr);
    EXPECT_EQ(none.fd(), -1);
    EXPECT_EQ(none.socketError(), ENOTCONN);
    expectResult(none.read(buffer, 0, 0), Status::kError, -1, ENOTCONN);
    expectResult(none.shutdownWrite(), Status::kError, -1, ENOTCONN);
}

TEST(TransportTest, TheEngineIsAskedOnlyOnceItsHandshakeIsDone) {
    std::string calls;
    SocketPair pair;
    const int fd = pair.near.fd();
    auto owned = std::make_unique<FakeEngine>(calls);
    FakeEngine& engine = *owned;
    SslStreamTransport transport(pair.takeNear(), std::move(owned));
    EXPECT_TRUE(transport.needsHandshake());
    EXPECT_FALSE(transport.supportsRawRead() || transport.supportsRawWrite());
    EXPECT_EQ(transport.fd(), fd);
    char buffer[8];
    const iovec vectors[] = {{buffer, 3}, {buffer, 0}, {buffer, 4}, {buffer, 5}};
    expectResult(transport.read(buffer, 8, 0), Status::kError, -1, ENOTCONN);
    expectResult(transport.write(buffer, 0, 0), Status::kError, -1, ENOTCONN);
    expectResult(transport.writev(vectors, 1, 0), Status::kError, -1, ENOTCONN);
    EXPECT_EQ(calls, "");

    engine.answers = {{Status::kWantWrite, -1, 0}, {Status::kOk, 0, 0}};
    expectResult(transport.handshake(), Status::kWantWrite, -1, 0);
    EXPECT_TRUE(transport.needsHandshake());
    expectResult(transport.handshake(), Status::kOk, 0, 0);
    EXPECT_FALSE(transport.needsHandshake());
    expectResult(transport.handshake(), Status::kOk, 0, 0);
    EXPECT_EQ(calls, "h0h0");

    calls.clear();
    engine.answers = {
        {Status::kWantWrite, -1, 0}, {Status::kClosed, -1, 0}, {Status::kWantRead, 1, 0}};
    expectResult(transport.read(buffer, 8, 0), Status::kWantWrite, -1, 0);
    expectResult(transport.read(buffer, 0, 0), Status::kOk, 0, 0);
    expectResult(transport.read(buffer, 7, 0), Status::kClosed, -1, 0);
    expectResult(transport.shutdownWrite(), Status::kWantRead, 1, 0);
    EXPECT_EQ(calls, "r8r7s0");

    // A vector at a time; the first that is not taken whole ends it.
    const struct {
        std::deque<TransportResult> answers;
        const char* calls;
        TransportResult result;
    } cases[] = {
        {{{Status::kOk, 3, 0}, {Status::kOk, 4, 0}, {Status::kOk, 5, 0}},
         "w3w4w5",
         {Status::kOk, 12, 0}},
        {{{Status::kOk, 3, 0}, {Status::kOk, 2, 0}}, "w3w4", {Status::kOk, 5, 0}},
        {{{Status::kOk, 3, 0}, {Status::kWantRead, -1, 0}}, "w3w4", {Status::kWantRead, 3, 0}},
        {{{Status::kError, -1, EIO}}, "w3", {Status::kError, -1, EIO}},
        {{{Status::kOk, -9, 0}}, "w3", {Status::kOk, 0, 0}},
    };
    for (const auto& c : cases) {
        calls.clear();
        engine.answers = c.answers;
        expectResult(transport.writev(vectors, 4, 0), c.result.status, c.result.bytes,
                     c.result.error);
        EXPECT_EQ(calls, c.calls);
    }
    expectResult(transport.writev(vectors, 0, 0), Status::kOk, 0, 0);
    expectResult(transport.writev(nullptr, 1, 0), Status::kError, -1, EINVAL);
    SslStreamTransport none(nullptr, nullptr);
    expectResult(none.handshake(), Status::kError, -1, ENOTCONN);
    expectResult(none.shutdownWrite(), Status::kError, -1, ENOTCONN);
}

TEST(TransportTest, AContextMakesTransportsOrClosesTheSocket) {
    const long before = openDescriptors();
    {
        std::string calls;
        SocketPair pair;
        FakeContext context;
        EXPECT_FALSE(context.createTransport(nullptr));
        EXPECT_EQ(errno, EINVAL);
        errno = 0;
        EXPECT_FALSE(context.createTransport(std::make_unique<StreamSocket>(-1)));
        EXPECT_EQ(errno, EINVAL);
        EXPECT_FALSE(context.createTransport(pair.takeNear())) << "no engine";
        EXPECT_EQ(openDescriptors(), before + 1);

        SocketPair other;
        context.engine = std::make_unique<FakeEngine>(calls);
        const int fd = other.near.fd();
        auto transport = context.createTransport(other.takeNear());
        ASSERT_TRUE(transport);
        EXPECT_EQ(transport->fd(), fd);
        transport.reset();
        EXPECT_EQ(calls, "~");
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
