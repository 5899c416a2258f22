#include <limits.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "frame/base/Assert.h"
#include "net/SocketError.h"
#include "net/StreamConnectionInternal.h"

namespace Vantel::Orbel {

namespace {

constexpr unsigned kWritesPerEvent = 16;

/// The sum of the lengths, or -1 with errno.
ssize_t totalLength(const iovec* vectors, int count) {
    size_t total = 0;
    for (int i = 0; i < count; ++i) {
        const iovec& vector = vectors[i];
        if (vector.iov_base == nullptr && vector.iov_len > 0) {
            return fail(EINVAL);
        }
        if (vector.iov_len > static_cast<size_t>(std::numeric_limits<ssize_t>::max()) - total) {
            return fail(EMSGSIZE);
        }
        total += vector.iov_len;
    }
    return static_cast<ssize_t>(total);
}

void appendRest(NetBuffer& buffer, const iovec* vectors, int count, size_t skip) {
    for (int i = 0; i < count; ++i) {
        const size_t skipped = std::min(skip, vectors[i].iov_len);
        skip -= skipped;
        buffer.append(static_cast<const char*>(vectors[i].iov_base) + skipped,
                      vectors[i].iov_len - skipped);
    }
}

}  // namespace

/// A writable event.
void StreamConnection::Internal::handleWrite() {
    ORBEL_ASSERT(isInLoopThread());
    const StreamConnectionPtr self = this->self();
    if (mCloseHandled) {
        return;
    }
    if (state() == kHandshaking) {
        handleHandshake(self);
        return;
    }
    if (mShutdownPending && state() == kDisconnecting && mOutputBuffer.empty() &&
        !mReadWantsWrite && !mWriteWantsRead) {
        shutdownInLoop(self);
        return;
    }
    if (mReadWantsWrite && (mCallbacks.message || draining())) {
        const State before = state();
        draining() ? drainInput(self) : readMessages(self);
        if (mReadWantsWrite || mCloseHandled || state() != before) {
            return;
        }
    }
    if (!mOutputBuffer.empty()) {
        flushOutput(self);
        if (!mOutputBuffer.empty() || state() != kConnected) {
            return;
        }
    }
    if (mShutdownPending && state() == kDisconnecting) {
        shutdownInLoop(self);
        return;
    }
    setWriting(false);  // one event for each enableWriting()
    if (mCallbacks.writable) {
        mCallbacks.writable(self);
    }
}

ssize_t StreamConnection::Internal::sendInLoop(const iovec* vectors, int count, int flags) {
    if (state() != kConnected || !mTransport) {
        return fail(ENOTCONN);
    }
    if (count < 0 || (count > 0 && vectors == nullptr)) {
        return fail(EINVAL);
    }
    const ssize_t sum = totalLength(vectors, count);
    if (sum <= 0) {
        return sum;
    }
    const auto total = static_cast<size_t>(sum);
    const StreamConnectionPtr self = this->self();
    if (!mOutputBuffer.empty() && !mChannel.isWriting()) {
        flushOutput(self);
        if (state() != kConnected) {
            return fail(EPIPE);
        }
    }
    if (!fitsOutput(total)) {
        return fail(EMSGSIZE);
    }
    size_t written = 0;
    if (mOutputBuffer.empty() && !mChannel.isWriting()) {
        mWriteWantsRead = false;
        // The kernel refuses more vectors than IOV_MAX at once; the rest waits in the buffer.
        const TransportResult result = mTransport->writev(vectors, std::min(count, IOV_MAX), flags);
        if (result.status == TransportStatus::kClosed) {
            handleClose(self);
            return fail(EPIPE);
        }
        if (result.status == TransportStatus::kError && !interrupted(result)) {
            const int error = result.error != 0 ? result.error : EIO;
            handleError(self, error);
            return fail(error);
        }
        written = std::min(static_cast<size_t>(std::max<int64_t>(result.bytes, 0)), total);
        if (written == total) {
            postWriteComplete(self);
            return sum;
        }
        mWriteWantsRead = result.status == TransportStatus::kWantRead;
    }
    if (!fitsOutput(total - written)) {
        return fail(EMSGSIZE);
    }
    mOutputBuffer.ensureWritable(total - written);
    appendRest(mOutputBuffer, vectors, count, written);
    publishOutputSize();
    waitToWrite();
    return sum;
}

bool StreamConnection::Internal::fitsOutput(size_t length) const {
    const size_t limit = mMaxOutputBufferSize.load(std::memory_order_relaxed);
    const size_t size = mOutputBuffer.size();
    if (length <= limit && size <= limit - length) {
        return true;
    }
    ORBEL_LOG_ERROR("outbuffer size overflow %zu, %zu %zu\n", size, length, limit);
    return false;
}

/// Writes what the output buffer holds, within the budget. If that empties it, the write-complete
/// callback is posted and a shutdown that waited goes on; otherwise the interest is set for more.
void StreamConnection::Internal::flushOutput(const StreamConnectionPtr& self) {
    EventBudget budget(kWritesPerEvent);
    while (!mOutputBuffer.empty() && mTransport && budget.left()) {
        const size_t length = std::min(mOutputBuffer.size(), budget.bytes());
        mWriteWantsRead = false;
        const TransportResult result = mTransport->write(mOutputBuffer.data(), length, 0);
        budget.spendOperation();
        if (result.status == TransportStatus::kClosed) {
            handleClose(self);
            return;
        }
        if (result.status == TransportStatus::kError && !interrupted(result)) {
            handleError(self, result.error != 0 ? result.error : EIO);
            return;
        }
        const size_t written = static_cast<size_t>(std::max<int64_t>(result.bytes, 0));
        mOutputBuffer.consume(written);
        publishOutputSize();
        budget.spendBytes(written);
        if (interrupted(result)) {
            continue;
        }
        if (result.status != TransportStatus::kOk || written < length) {
            mWriteWantsRead = result.status == TransportStatus::kWantRead;
            break;
        }
    }
    if (!mOutputBuffer.empty()) {
        waitToWrite();
        return;
    }
    mWriteWantsRead = false;
    postWriteComplete(self);
    if (state() == kDisconnecting) {
        shutdownInLoop(self);
    }
}

/// Waits for the direction that the last write asked for.
void StreamConnection::Internal::waitToWrite() {
    if (mWriteWantsRead) {
        setReading(true);
        setWriting(false);
    } else {
        setWriting(true);
    }
}

void StreamConnection::Internal::postWriteComplete(const StreamConnectionPtr& self) {
    if (!mCallbacks.writeComplete) {
        return;
    }
    // Never inline: the callback may send again, and must see send() return first.
    mLoop->queueInLoop([self] {
        const Internal& internal = *self->mInternal;
        if (internal.state() != kDisconnected && internal.mCallbacks.writeComplete) {
            internal.mCallbacks.writeComplete(self);
        }
    });
}

}  // namespace Vantel::Orbel
