#include <algorithm>
#include <cerrno>

#include "frame/base/Assert.h"
#include "frame/base/Log.h"
#include "net/StreamConnectionInternal.h"

namespace Vantel::Orbel {

namespace {

constexpr unsigned kReadsPerEvent = 32;
constexpr size_t kReadPiece = 0x20000;

}  // namespace

/// A readable event.
void StreamConnection::Internal::handleRead() {
    ORBEL_ASSERT(isInLoopThread());
    const StreamConnectionPtr self = this->self();
    if (mCloseHandled) {
        return;
    }
    if (state() == kHandshaking) {
        handleHandshake(self);
        return;
    }
    bool flushed = false;
    if ((mReadWantsWrite || mWriteWantsRead) && !mOutputBuffer.empty()) {
        flushOutput(self);
        if (!mOutputBuffer.empty() || mCloseHandled) {
            return;
        }
        flushed = true;
    }
    if (mShutdownPending && state() == kDisconnecting) {
        shutdownInLoop(self);
        return;
    }
    if (state() != kConnected && !draining()) {
        return;
    }
    if (mCallbacks.readable) {
        mCallbacks.readable(self);
    } else if (draining()) {
        drainInput(self);
    } else if (mCallbacks.message) {
        readMessages(self);
    } else if (!flushed) {
        ORBEL_LOG_WARN(
            " StreamConnection::handleRead [%s] readable event without callback, closing\n",
            mName.c_str());
        handleClose(self);
    }
}

/// Reads what is there, within the budget, and shows it to the message callback: once in the
/// normal case. Nothing that came before an end of file or an error is withheld from it.
void StreamConnection::Internal::readMessages(const StreamConnectionPtr& self) {
    EventBudget budget(kReadsPerEvent);
    bool pending = false;  // the buffer holds bytes that the callback has not seen
    for (; state() == kConnected && mTransport && budget.left(); budget.spendOperation()) {
        if (!makeRoom(self, pending)) {
            return;
        }
        const size_t room = maxInput() - std::min(maxInput(), mInputBuffer.size());
        const size_t length = std::min({room, budget.bytes(), kReadPiece});
        if (length == 0) {
            break;
        }
        const TransportResult result = readIntoInput(length);
        if (result.status == TransportStatus::kOk && result.bytes > 0) {
            mInputBuffer.hasWritten(static_cast<size_t>(result.bytes));
            if (mInputBuffer.size() > maxInput()) {
                handleError(self, EMSGSIZE);
                return;
            }
            pending = true;
            if (static_cast<size_t>(result.bytes) < length) {
                break;  // drained: another read would only say so
            }
            budget.spendBytes(length);
            continue;
        }
        if (interrupted(result)) {
            continue;
        }
        const bool ended =
            result.status == TransportStatus::kClosed || result.status == TransportStatus::kError;
        if (ended && pending && !deliver(self)) {
            return;
        }
        waitOrEndReading(self, result);
        break;
    }
    if (pending && state() == kConnected) {
        deliver(self);
    }
}

/// Before each read: an input at its limit is shown to the callback, and ends the connection if
/// that does not help. Whether reading goes on.
bool StreamConnection::Internal::makeRoom(const StreamConnectionPtr& self, bool& pending) {
    if (mInputBuffer.size() < maxInput()) {
        return true;
    }
    if (pending) {
        pending = false;
        if (!deliver(self) || state() != kConnected) {
            return false;
        }
    }
    if (mInputBuffer.size() >= maxInput()) {
        handleError(self, EMSGSIZE);  // the application does not consume
        return false;
    }
    return true;
}

/// Runs the message callback. False if it left more than the limit, which ends the connection.
bool StreamConnection::Internal::deliver(const StreamConnectionPtr& self) {
    if (mCallbacks.message) {
        mCallbacks.message(self, &mInputBuffer);
    }
    if (mInputBuffer.size() > maxInput()) {
        handleError(self, EMSGSIZE);
        return false;
    }
    return true;
}

/// While shutting down: drops what the peer still sends, until its end of file. Without this, a
/// level-triggered end of file would wake the loop for ever.
void StreamConnection::Internal::drainInput(const StreamConnectionPtr& self) {
    EventBudget budget(kReadsPerEvent);
    mInputBuffer.clear();
    for (; mTransport && draining() && budget.left(); budget.spendOperation()) {
        const size_t length = std::min(budget.bytes(), kReadPiece);
        const TransportResult result = readIntoInput(length);
        if (interrupted(result)) {
            continue;
        }
        if (result.status != TransportStatus::kOk || result.bytes < static_cast<int64_t>(length)) {
            waitOrEndReading(self, result);
            return;
        }
        budget.spendBytes(length);
    }
}

TransportResult StreamConnection::Internal::readIntoInput(size_t length) {
    mInputBuffer.ensureWritable(length);
    mReadWantsWrite = false;
    return mTransport->read(mInputBuffer.writableData(), length, 0);
}

/// What stopped a series of reads: nothing more for now, the other direction to wait for, or an
/// end.
void StreamConnection::Internal::waitOrEndReading(const StreamConnectionPtr& self,
                                                  const TransportResult& result) {
    if (result.status == TransportStatus::kWantWrite) {
        mReadWantsWrite = true;
        setWriting(true);
    } else if (result.status == TransportStatus::kClosed) {
        handleClose(self);
    } else if (result.status == TransportStatus::kError) {
        handleError(self, result.error);
    }
}

}  // namespace Vantel::Orbel
