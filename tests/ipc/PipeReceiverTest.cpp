#include <gtest/gtest.h>

#include "ipc/PipeReceiver.h"
#include "tests/ipc/RawPeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OpenDescriptors.h"

namespace {

using namespace Vantel::Orbel;
using namespace OrbelTest;

class PipeReceiverTest : public testing::Test {
protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        mHere.reset(ends[0]);
        mPeer.reset(ends[1]);
    }
    /// One piece of the stream with `fds` copies of a descriptor.
    void send(size_t bytes, int fds = 0) {
        PipeMessage messages[2];
        messages[0].sequence = ++mSent;
        ASSERT_EQ(rawSend(mPeer.get(), messages, bytes,
                          std::vector<int>(static_cast<size_t>(fds), mPeer.get())),
                  static_cast<ssize_t>(bytes));
    }
    int receive(unsigned int count = PipeReceiver::kBatch) {
        errno = 0;
        return mReceiver.receive(mHere.get(), mMessages, count);
    }
    /// Closes what the batch brought; how many descriptors that were.
    int closeReceived(int count) {
        int closed = 0;
        for (int i = 0; i < count; ++i) {
            closed += mMessages[i].fd >= 0 ? 1 : 0;
            UniqueFd owned(mMessages[i].fd);
        }
        return closed;
    }

    LogCapture mLog;
    UniqueFd mHere;
    UniqueFd mPeer;
    uint64_t mSent = 0;
    PipeReceiver mReceiver;
    PipeMessage mMessages[PipeReceiver::kBatch];
};

TEST_F(PipeReceiverTest, BatchesComeInOrderAndTheEndComesLast) {
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(errno, EAGAIN);
    for (int i = 0; i < 20; ++i) {
        send(32);
    }
    uint64_t next = 1;
    for (const int expected : {16, 4}) {
        ASSERT_EQ(receive(), expected);
        for (int i = 0; i < expected; ++i) {
            EXPECT_EQ(mMessages[i].sequence, next++);
            EXPECT_EQ(mMessages[i].fd, -1);
        }
    }
    send(32);
    send(32);
    EXPECT_EQ(receive(1), 1);
    mPeer.reset();
    EXPECT_EQ(receive(), 1) << "the last message before the end is lost";
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(receive(0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(PipeReceiverTest, WhateverComesNoDescriptorIsLeft) {
    struct Piece {
        size_t bytes;
        int fds;
    };
    const struct {
        const char* why;
        std::vector<Piece> pieces;
        int result;
        int error;
        int kept;
    } cases[] = {
        {"no descriptor", {{32, 0}}, 1, 0, 0},
        {"one is kept", {{32, 1}}, 1, 0, 1},
        {"of two the second is closed", {{32, 2}}, 1, 0, 1},
        {"three do not fit", {{32, 3}}, -1, EMSGSIZE, 0},
        {"five do not fit", {{32, 5}}, -1, EMSGSIZE, 0},
        {"good ones before the truncated one", {{32, 1}, {32, 1}, {32, 5}}, -1, EMSGSIZE, 0},
        {"good ones behind it", {{32, 5}, {32, 1}, {32, 2}}, -1, EMSGSIZE, 0},
        {"cut short", {{31, 1}}, -1, EIO, 0},
        {"one byte too many", {{33, 1}}, -1, EIO, 0},
        {"good ones around a short one", {{32, 1}, {32, 1}, {7, 1}}, -1, EIO, 0},
        {"sixteen with one each", std::vector<Piece>(16, Piece{32, 1}), 16, 0, 16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        SetUp();
        const long before = openDescriptors();
        for (const Piece& piece : c.pieces) {
            send(piece.bytes, piece.fds);
        }
        const int result = receive();
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(c.result < 0 ? errno : 0, c.error);
        EXPECT_EQ(openDescriptors(), before + c.kept);
        EXPECT_EQ(closeReceived(result), c.kept);
        // The same headers work for the next batch, of another stream: this one is out of step.
        SetUp();
        send(32, 1);
        EXPECT_EQ(receive(), 1);
        EXPECT_EQ(closeReceived(1), 1);
    }
    EXPECT_TRUE(mLog.has(" recvMessage: msg[2] control data truncated"));
    EXPECT_TRUE(mLog.has(" recvMessage: msg[2] incomplete, got 7 expect 32"));
}

}  // namespace
