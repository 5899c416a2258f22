#include "Vantel/Orbel/StreamConnection.h"

#include <cerrno>
#include <utility>

#include "Vantel/Orbel/PlainStreamTransport.h"
#include "Vantel/Orbel/StreamSocket.h"
#include "frame/base/Assert.h"
#include "net/SocketError.h"
#include "net/StreamConnectionInternal.h"

namespace Vantel::Orbel {

namespace {

ssize_t failWith(const TransportResult& result) {
    return fail(result.error != 0 ? result.error : EAGAIN);
}

bool askAddress(int (*call)(int, sockaddr*, socklen_t*), int fd, sockaddr_storage* addr,
                unsigned* length) {
    if (addr == nullptr || length == nullptr || *length < sizeof(sockaddr_storage)) {
        return refuse(EINVAL);
    }
    if (fd < 0) {
        return refuse(ENOTCONN);
    }
    return call(fd, reinterpret_cast<sockaddr*>(addr), length) == 0;
}

}  // namespace

StreamConnection::Internal::Internal(StreamConnection& owner, EventLoop* loop,
                                     const std::string& name,
                                     std::unique_ptr<StreamTransport> transport)
    : mLoop(loop),
      mName(name),
      mTransport(std::move(transport)),
      mChannel(loop, mTransport ? mTransport->fd() : -1),
      mOwner(owner) {
    mChannel.setReadCallback([this] { handleRead(); });
    mChannel.setWriteCallback([this] { handleWrite(); });
    mChannel.setCloseCallback([this] { handleClose(self()); });
    mChannel.setErrorCallback(
        [this] { handleError(self(), mTransport ? mTransport->socketError() : ENOTCONN); });
    if (mTransport && mTransport->socket() != nullptr) {
        mTransport->socket()->setNonBlocking(true);
    }
}

void StreamConnection::Internal::setReading(bool on) {
    if (mChannel.isReading() != on) {
        on ? mChannel.enableReading() : mChannel.disableReading();
        mReading.store(mChannel.isReading(), std::memory_order_relaxed);
    }
}

void StreamConnection::Internal::setWriting(bool on) {
    if (mChannel.isWriting() != on) {
        on ? mChannel.enableWriting() : mChannel.disableWriting();
        mWriting.store(mChannel.isWriting(), std::memory_order_relaxed);
    }
}

void StreamConnection::Internal::clearInterest() {
    if (mChannel.isAddedToLoop() && !mChannel.isNoneEvent()) {
        mChannel.disableAll();
        mReading.store(mChannel.isReading(), std::memory_order_relaxed);
        mWriting.store(mChannel.isWriting(), std::memory_order_relaxed);
    }
}

StreamConnection::StreamConnection(EventLoop* loop, const std::string& name,
                                   std::unique_ptr<StreamTransport> transport)
    : mInternal(std::make_unique<Internal>(*this, loop, name, std::move(transport))) {}

StreamConnection::StreamConnection(EventLoop* loop, const std::string& name,
                                   std::unique_ptr<StreamSocket> socket)
    : StreamConnection(
          loop, name,
          std::unique_ptr<StreamTransport>(new PlainStreamTransport(std::move(socket)))) {}

StreamConnection::StreamConnection(EventLoop* loop, const std::string& name, int fd)
    : StreamConnection(loop, name, std::make_unique<StreamSocket>(fd)) {}

StreamConnection::~StreamConnection() = default;

void StreamConnection::connectEstablished() {
    mInternal->connectEstablished();
}

void StreamConnection::connectDestroyed() {
    mInternal->connectDestroyed();
}

ssize_t StreamConnection::send(const void* buffer, size_t length, int flags) {
    if (length == 0) {
        return 0;
    }
    if (buffer == nullptr) {
        return fail(EINVAL);
    }
    const iovec vector{const_cast<void*>(buffer), length};
    return writev(&vector, 1, flags);
}

ssize_t StreamConnection::send(const std::string& text) {
    return send(text.data(), text.size(), 0);
}

ssize_t StreamConnection::writev(const iovec* vectors, int count, int flags) {
    if (count < 0 || (vectors == nullptr && count > 0)) {
        return fail(EINVAL);
    }
    EventLoop* const loop = mInternal->mLoop;
    if (loop->isInLoopThread()) {
        return mInternal->sendInLoop(vectors, count, flags);
    }
    if (!loop->isRunning()) {
        return fail(ESHUTDOWN);
    }
    // The loop may use the caller's vectors: the caller waits here.
    using Outcome = std::pair<long, int>;
    std::future<Outcome> outcome =
        loop->runInLoopWithResult<Outcome>([self = shared_from_this(), vectors, count, flags] {
            const ssize_t accepted = self->mInternal->sendInLoop(vectors, count, flags);
            return Outcome(accepted, errno);
        });
    const auto [accepted, error] = outcome.get();
    return accepted < 0 ? fail(error) : accepted;
}

void StreamConnection::shutdown() {
    mInternal->runInLoop([internal = mInternal.get()] { internal->shutdown(internal->self()); });
}

void StreamConnection::forceClose() {
    mInternal->runInLoop([internal = mInternal.get()] { internal->forceClose(internal->self()); });
}

void StreamConnection::close() {
    forceClose();
}

// A closed connection takes no interest again: the peer's end of file would wake the loop for ever.

void StreamConnection::enableReading() {
    mInternal->runInLoop([internal = mInternal.get()] {
        if (!internal->mCloseHandled) {
            internal->setReading(true);
        }
    });
}

void StreamConnection::disableReading() {
    mInternal->runInLoop([internal = mInternal.get()] { internal->setReading(false); });
}

void StreamConnection::enableWriting() {
    mInternal->runInLoop([internal = mInternal.get()] {
        if (!internal->mCloseHandled) {
            internal->setWriting(true);
        }
    });
}

void StreamConnection::disableWriting() {
    mInternal->runInLoop([internal = mInternal.get()] { internal->setWriting(false); });
}

void StreamConnection::disableAll() {
    mInternal->runInLoop([internal = mInternal.get()] { internal->clearInterest(); });
}

ssize_t StreamConnection::recv(void* buffer, size_t length, int flags) {
    ORBEL_ASSERT_TEXT(mInternal->isInLoopThread(), "isInLoopThread()");
    StreamTransport* const transport = mInternal->mTransport.get();
    if (transport == nullptr || !transport->supportsRawRead()) {
        return fail(EINVAL);
    }
    const TransportResult result = transport->read(buffer, length, flags);
    switch (result.status) {
        case TransportStatus::kOk:
            return static_cast<ssize_t>(result.bytes);
        case TransportStatus::kClosed:
            return 0;
        default:
            return failWith(result);
    }
}

ssize_t StreamConnection::read(void* buffer, size_t length) {
    return recv(buffer, length, 0);
}

ssize_t StreamConnection::sendRaw(const void* buffer, size_t length, int flags) {
    ORBEL_ASSERT_TEXT(mInternal->isInLoopThread(), "isInLoopThread()");
    if (!connected()) {
        return fail(ENOTCONN);
    }
    StreamTransport* const transport = mInternal->mTransport.get();
    if (transport == nullptr || !transport->supportsRawWrite()) {
        return fail(EINVAL);
    }
    const TransportResult result = transport->write(buffer, length, flags);
    switch (result.status) {
        case TransportStatus::kOk:
            return static_cast<ssize_t>(result.bytes);
        case TransportStatus::kClosed:
            return fail(EPIPE);
        default:
            return failWith(result);
    }
}

ssize_t StreamConnection::writeRaw(const void* buffer, size_t length) {
    return sendRaw(buffer, length, 0);
}

StreamConnection::State StreamConnection::state() const {
    return mInternal->state();
}

bool StreamConnection::connected() const {
    return state() == kConnected;
}

bool StreamConnection::disconnected() const {
    return state() == kDisconnected;
}

bool StreamConnection::reading() const {
    return mInternal->mReading.load(std::memory_order_relaxed);
}

bool StreamConnection::writing() const {
    return mInternal->mWriting.load(std::memory_order_relaxed);
}

size_t StreamConnection::outputBufferSize() const {
    return mInternal->mOutputSize.load(std::memory_order_relaxed);
}

const std::string& StreamConnection::name() const {
    return mInternal->mName;
}

EventLoop* StreamConnection::getLoop() const {
    return mInternal->mLoop;
}

int StreamConnection::fd() const {
    return mInternal->mTransport ? mInternal->mTransport->fd() : -1;
}

StreamSocket* StreamConnection::getSocket() const {
    return mInternal->mTransport ? mInternal->mTransport->socket() : nullptr;
}

bool StreamConnection::getLocalAddress(sockaddr_storage* addr, unsigned* length) const {
    return askAddress(&::getsockname, fd(), addr, length);
}

bool StreamConnection::getPeerAddress(sockaddr_storage* addr, unsigned* length) const {
    return askAddress(&::getpeername, fd(), addr, length);
}

void StreamConnection::setMaxInputBufferSize(size_t sizeBytes) {
    if (sizeBytes != 0) {
        mInternal->mMaxInputBufferSize.store(sizeBytes, std::memory_order_relaxed);
    }
}

void StreamConnection::setMaxOutputBufferSize(size_t sizeBytes) {
    if (sizeBytes != 0) {
        mInternal->mMaxOutputBufferSize.store(sizeBytes, std::memory_order_relaxed);
    }
}

void StreamConnection::setConnectionCallback(const StreamConnectionCallback& callback) {
    mInternal->mCallbacks.connection = callback;
}

void StreamConnection::setMessageCallback(const StreamMessageCallback& callback) {
    mInternal->mCallbacks.message = callback;
}

void StreamConnection::setReadableCallback(const StreamConnectionCallback& callback) {
    mInternal->mCallbacks.readable = callback;
}

void StreamConnection::setWritableCallback(const StreamConnectionCallback& callback) {
    mInternal->mCallbacks.writable = callback;
}

void StreamConnection::setWriteCompleteCallback(const StreamConnectionCallback& callback) {
    mInternal->mCallbacks.writeComplete = callback;
}

void StreamConnection::setErrorCallback(const StreamErrorCallback& callback) {
    mInternal->mCallbacks.error = callback;
}

void StreamConnection::setCloseCallback(const StreamConnectionCallback& callback) {
    mInternal->mCallbacks.close = callback;
}

void StreamConnection::setCallbacks(const StreamCallbacks& callbacks) {
    mInternal->mCallbacks = callbacks;
}

void StreamConnection::setContext(const Any& context) {
    mInternal->mContext = context;
}

void StreamConnection::setContext(Any&& context) {
    mInternal->mContext = std::move(context);
}

const Any& StreamConnection::getContext() const {
    return mInternal->mContext;
}

Any* StreamConnection::getMutableContext() {
    return &mInternal->mContext;
}

void StreamConnection::clearContext() {
    mInternal->mContext.clear();
}

bool StreamConnection::hasContext() const {
    return !mInternal->mContext.empty();
}

}  // namespace Vantel::Orbel
