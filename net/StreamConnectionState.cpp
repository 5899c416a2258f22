#include <cerrno>
#include <cstring>
#include <utility>

#include "frame/base/Assert.h"
#include "frame/base/Log.h"
#include "net/StreamConnectionInternal.h"

namespace Vantel::Orbel {

void StreamConnection::Internal::connectEstablished() {
    ORBEL_ASSERT(isInLoopThread());
    if (state() != kConnecting) {
        return;  // destroyed before its turn came
    }
    const StreamConnectionPtr self = this->self();
    mChannel.tie(self);
    if (mTransport && mTransport->needsHandshake()) {
        setState(kHandshaking);
        setReading(true);
        handleHandshake(self);
    } else {
        enterConnected(self);
    }
}

void StreamConnection::Internal::enterConnected(const StreamConnectionPtr& self) {
    if (state() == kConnected) {
        return;
    }
    setState(kConnected);
    setWriting(false);
    setReading(true);
    if (mCallbacks.connection) {
        mCallbacks.connection(self);
    }
}

void StreamConnection::Internal::handleHandshake(const StreamConnectionPtr& self) {
    if (!mTransport) {
        handleError(self, ENOTCONN);
        return;
    }
    TransportResult result;
    do {
        result = mTransport->handshake();
    } while (interrupted(result) && state() == kHandshaking);
    if (result.status == TransportStatus::kOk) {
        enterConnected(self);
    } else {
        waitOrEnd(self, result);
    }
}

/// What keeps a handshake or a shutdown from being done: the direction to wait for, or an end.
void StreamConnection::Internal::waitOrEnd(const StreamConnectionPtr& self,
                                           const TransportResult& result) {
    switch (result.status) {
        case TransportStatus::kOk:
            return;
        case TransportStatus::kWantRead:
            setReading(true);
            setWriting(false);
            return;
        case TransportStatus::kWantWrite:
            setWriting(true);
            return;
        case TransportStatus::kClosed:
            handleClose(self);
            return;
        case TransportStatus::kError:
            handleError(self, result.error != 0 ? result.error : EIO);
            return;
    }
}

void StreamConnection::Internal::shutdown(const StreamConnectionPtr& self) {
    switch (state()) {
        case kHandshaking:  // has no orderly end
            setState(kDisconnecting);
            handleClose(self);
            return;
        case kConnected:
            setState(kDisconnecting);
            shutdownInLoop(self);
            return;
        default:
            return;
    }
}

void StreamConnection::Internal::shutdownInLoop(const StreamConnectionPtr& self) {
    if (!mOutputBuffer.empty()) {
        waitToWrite();  // the flush comes back here once it is done
        return;
    }
    if (!mTransport) {
        handleClose(self);
        return;
    }
    TransportResult result;
    do {
        result = mTransport->shutdownWrite();
    } while (interrupted(result));
    mShutdownPending =
        result.status == TransportStatus::kWantRead || result.status == TransportStatus::kWantWrite;
    if (result.status == TransportStatus::kOk) {
        setWriting(false);  // the peer's end of file finishes the connection, see handleRead
    } else {
        waitOrEnd(self, result);
    }
}

void StreamConnection::Internal::forceClose(const StreamConnectionPtr& self) {
    if (state() == kHandshaking || state() == kConnected || state() == kDisconnecting) {
        setState(kDisconnecting);
        handleClose(self);
    }
}

void StreamConnection::Internal::handleClose(const StreamConnectionPtr& self) {
    ORBEL_ASSERT(isInLoopThread());
    if (state() == kDisconnected || mCloseHandled) {
        return;
    }
    mCloseHandled = true;
    setState(kDisconnecting);  // until connectDestroyed()
    clearInterest();
    // Runs once, so it is moved out: the owner may replace it from within.
    if (const StreamConnectionCallback callback = std::move(mCallbacks.close)) {
        callback(self);
    }
}

void StreamConnection::Internal::handleError(const StreamConnectionPtr& self, int error) {
    ORBEL_ASSERT(isInLoopThread());
    if (mCloseHandled) {
        return;  // nothing follows the close callback
    }
    ORBEL_LOG_ERROR("StreamConnection::handleError [%s] socket error=%d:%s\n", mName.c_str(), error,
                    std::strerror(error));
    if (mCallbacks.error) {
        mCallbacks.error(self, error);
    }
    handleClose(self);
}

void StreamConnection::Internal::connectDestroyed() {
    ORBEL_ASSERT(isInLoopThread());
    if (state() != kDisconnected) {
        clearInterest();
        mCloseHandled = true;
        setState(kDisconnected);
    }
    if (mChannel.isAddedToLoop()) {
        mChannel.remove();
    }
    const Any last = std::move(mContext);  // its destructor may call in here again
    mContext.clear();
}

}  // namespace Vantel::Orbel
