#include "Vantel/Orbel/StreamClient.h"

#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <mutex>
#include <utility>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/StreamConnector.h"
#include "Vantel/Orbel/StreamSocket.h"
#include "frame/base/Log.h"
#include "net/ConnectionSettings.h"
#include "net/StopInLoop.h"

namespace Vantel::Orbel {

namespace {

constexpr int32_t kReconnectTimeoutMs = 10;  // for reconnections, whatever connect() was given
constexpr int64_t kDisconnectTimeoutMs = 1000;

}  // namespace

/// Loop thread only, but for the atomics and for mConnection under its mutex, which nothing is
/// called with. What the loop runs later holds this object weakly: the client may be gone by then.
class StreamClient::Internal : public std::enable_shared_from_this<Internal> {
public:
    Internal(EventLoop* loop, const std::string& name)
        : mLoop(loop), mName(name), mConnector(std::make_unique<StreamConnector>(loop, name)) {}

    int begin(const InetAddress& addr, int32_t timeoutMs);
    void newConnection(std::unique_ptr<StreamSocket> socket);
    void disconnect(const StreamConnectionPtr& seenByCaller);
    void stop();
    void clearWishes();

    StreamConnectionPtr connection() const {
        std::lock_guard<std::mutex> guard(mConnectionMutex);
        return mConnection;
    }

    EventLoop* const mLoop;
    const std::string mName;
    const std::unique_ptr<StreamConnector> mConnector;
    std::atomic<bool> mConnect{false};
    std::atomic<bool> mRetry{false};
    int32_t mNextConnId = 1;
    unsigned long mDisconnectTimerId = 0;
    mutable std::mutex mConnectionMutex;
    StreamConnectionPtr mConnection;
    ConnectionSettings mSettings;
    enum State : int32_t { kNone = 0, kConnected = 1, kDisconnecting = 2 } mConnectionState = kNone;

private:
    std::string nextConnectionName();
    void handleClose(const StreamConnectionPtr& connection);
    bool forget(const StreamConnectionPtr& connection);
    void remove(const StreamConnectionPtr& connection);
    void armDisconnectTimer(const StreamConnectionPtr& connection);
    void cancelDisconnectTimer();
};

/// 0 if an attempt was begun, else why not: the caller may wait in another thread, where the
/// loop's errno is not seen.
int StreamClient::Internal::begin(const InetAddress& addr, int32_t timeoutMs) {
    if (mConnectionState != kNone) {
        return EISCONN;
    }
    if (!mConnect) {
        return ECANCELED;
    }
    cancelDisconnectTimer();
    errno = 0;
    if (mConnector->start(addr, timeoutMs)) {
        return 0;
    }
    return errno != 0 ? errno : EINVAL;
}

std::string StreamClient::Internal::nextConnectionName() {
    char suffix[128];
    snprintf(suffix, sizeof suffix, ":%s#%d", mConnector->serverAddr().toString().c_str(),
             mNextConnId++);
    return mName + suffix;
}

void StreamClient::Internal::newConnection(std::unique_ptr<StreamSocket> socket) {
    cancelDisconnectTimer();
    if (!socket || socket->fd() < 0) {
        const int error = errno;
        ORBEL_LOG_ERROR("StreamClient::newConnection invalid socket for %s: %s\n",
                        mConnector->serverAddr().toString().c_str(), strerror(error));
        errno = error;
        return;
    }
    const std::string name = nextConnectionName();
    const StreamConnectionPtr connection = mSettings.makeConnection(mLoop, name, std::move(socket));
    if (!connection) {
        ORBEL_LOG_ERROR("StreamClient::newConnection transport creation failed for %s: %s\n",
                        name.c_str(), strerror(errno));
        return;
    }
    mConnectionState = kConnected;
    connection->setCloseCallback([weak = weak_from_this()](const StreamConnectionPtr& closed) {
        if (const auto self = weak.lock()) {
            self->handleClose(closed);
        }
    });
    {
        std::lock_guard<std::mutex> guard(mConnectionMutex);
        mConnection = connection;
    }
    connection->connectEstablished();
}

/// The removal waits for the next batch: the connection must not end inside its own event. It is
/// clean-up, and so is done even if the loop ends first.
void StreamClient::Internal::handleClose(const StreamConnectionPtr& connection) {
    if (mSettings.callbacks.close) {
        mSettings.callbacks.close(connection);
    }
    StopInLoop::queue(*mLoop, [weak = weak_from_this(), connection] {
        if (const auto self = weak.lock()) {
            self->remove(connection);
        }
    });
}

/// False if `connection` is not, or no longer, the present one.
bool StreamClient::Internal::forget(const StreamConnectionPtr& connection) {
    {
        std::lock_guard<std::mutex> guard(mConnectionMutex);
        if (!connection || mConnection != connection) {
            return false;
        }
        mConnection.reset();
    }
    mConnectionState = kNone;
    connection->setCloseCallback({});
    connection->connectDestroyed();
    return true;
}

void StreamClient::Internal::remove(const StreamConnectionPtr& connection) {
    cancelDisconnectTimer();
    if (forget(connection) && mRetry && mConnect) {
        mConnector->restart(kReconnectTimeoutMs);
    }
}

/// `seenByCaller` is the connection when disconnect() was called. One that came about since then is
/// ended as well: nobody wants it any more.
void StreamClient::Internal::disconnect(const StreamConnectionPtr& seenByCaller) {
    const StreamConnectionPtr present = connection();
    if (!present) {
        mConnector->stop();
        mConnectionState = kNone;
        return;
    }
    if (seenByCaller && seenByCaller != present) {
        return;
    }
    if (mConnectionState == kConnected) {
        mConnectionState = kDisconnecting;
        armDisconnectTimer(present);
        present->shutdown();
    } else if (mConnectionState == kDisconnecting) {
        armDisconnectTimer(present);
    }
}

/// A peer that does not answer the shutdown is not waited for any longer than this.
void StreamClient::Internal::armDisconnectTimer(const StreamConnectionPtr& connection) {
    cancelDisconnectTimer();
    mDisconnectTimerId = mLoop->runInLoopAfter(
        [weak = weak_from_this(), connection] {
            const auto self = weak.lock();
            if (!self) {
                return;
            }
            self->mDisconnectTimerId = 0;
            if (self->connection() == connection && self->mConnectionState == kDisconnecting) {
                ORBEL_LOG_WARN(
                    " StreamClient::disconnect timeout for %s, force closing connection\n",
                    connection->name().c_str());
                connection->forceClose();
            }
        },
        kDisconnectTimeoutMs);
}

void StreamClient::Internal::cancelDisconnectTimer() {
    if (mDisconnectTimerId != 0) {
        mLoop->cancelTimer(std::exchange(mDisconnectTimerId, 0));
    }
}

void StreamClient::Internal::clearWishes() {
    mConnect = false;
    mRetry = false;
    mConnector->setRetry(false);
}

/// The user's close callback does not run on this path.
void StreamClient::Internal::stop() {
    mConnector->setRetry(false);
    mConnector->stop();
    cancelDisconnectTimer();
    if (!forget(connection())) {
        mConnectionState = kNone;
    }
}

StreamClient::StreamClient(EventLoop* loop, const std::string& name)
    : mInternal(std::make_shared<Internal>(loop, name)) {
    mInternal->mConnector->setConnectedCallback(
        [weak = std::weak_ptr<Internal>(mInternal)](std::unique_ptr<StreamSocket> socket) {
            if (const auto internal = weak.lock()) {
                internal->newConnection(std::move(socket));
            }
        });
}

/// The task in the loop drops the last reference, so that the connector ends there too.
StreamClient::~StreamClient() {
    mInternal->clearWishes();
    EventLoop& loop = *mInternal->mLoop;
    const auto cleanUp = [this] {
        const auto internal = std::move(mInternal);
        internal->stop();
    };
    if (!StopInLoop::runAndWait(loop, cleanUp)) {
        ORBEL_LOG_WARN(
            " StreamClient::~StreamClient skipped loop cleanup for %s: event loop is not running\n",
            mInternal->mName.c_str());
        StopInLoop::queue(loop, [internal = std::move(mInternal)] { internal->stop(); });
    }
}

bool StreamClient::connect(const InetAddress& addr, int32_t timeoutMs) {
    if (!checkServerAddress(addr)) {
        ORBEL_LOG_ERROR("StreamClient::connect failed: invalid server address %s\n",
                        addr.toString().c_str());
        errno = EINVAL;
        return false;
    }
    mInternal->mConnect = true;
    std::future<int> begun = mInternal->mLoop->runInLoopWithResult<int>(
        [weak = std::weak_ptr<Internal>(mInternal), addr, timeoutMs] {
            const auto internal = weak.lock();
            return internal ? internal->begin(addr, timeoutMs) : ECANCELED;
        });
    const auto wait = std::chrono::milliseconds(timeoutMs < 1 ? 10 : int64_t{timeoutMs} + 50);
    if (begun.wait_for(wait) != std::future_status::ready) {
        errno = ETIMEDOUT;
        return false;
    }
    const int error = begun.get();
    if (error != 0) {
        errno = error;
    }
    return error == 0;
}

void StreamClient::disconnect() {
    mInternal->mConnect = false;
    const StreamConnectionPtr connection = mInternal->connection();
    const auto internal = mInternal;
    if (!StopInLoop::runAndWait(*internal->mLoop, [&] { internal->disconnect(connection); })) {
        errno = ESHUTDOWN;
    }
}

void StreamClient::stop() {
    mInternal->clearWishes();
    const auto internal = mInternal;
    if (!StopInLoop::runAndWait(*internal->mLoop, [&] { internal->stop(); })) {
        ORBEL_LOG_WARN(" StreamClient::stop ignored for %s: event loop is not running\n",
                       internal->mName.c_str());
    }
}

void StreamClient::enableRetry() {
    mInternal->mRetry = true;
    mInternal->mConnector->setRetry(true);
}

bool StreamClient::retry() const {
    return mInternal->mRetry;
}

StreamConnectionPtr StreamClient::connection() const {
    return mInternal->connection();
}

void StreamClient::setConnectionCallback(const StreamConnectionCallback& callback) {
    mInternal->mSettings.callbacks.connection = callback;
}

void StreamClient::setMessageCallback(const StreamMessageCallback& callback) {
    mInternal->mSettings.callbacks.message = callback;
}

void StreamClient::setReadableCallback(const StreamConnectionCallback& callback) {
    mInternal->mSettings.callbacks.readable = callback;
}

void StreamClient::setWritableCallback(const StreamConnectionCallback& callback) {
    mInternal->mSettings.callbacks.writable = callback;
}

void StreamClient::setWriteCompleteCallback(const StreamConnectionCallback& callback) {
    mInternal->mSettings.callbacks.writeComplete = callback;
}

void StreamClient::setErrorCallback(const StreamErrorCallback& callback) {
    mInternal->mSettings.callbacks.error = callback;
}

void StreamClient::setCloseCallback(const StreamConnectionCallback& callback) {
    mInternal->mSettings.callbacks.close = callback;
}

void StreamClient::setTransportFactory(
    const std::function<std::unique_ptr<StreamTransport>(std::unique_ptr<StreamSocket>)>& factory) {
    mInternal->mSettings.transportFactory = factory;
}

void StreamClient::setSocketSetupCallback(const std::function<bool(StreamSocket*)>& callback) {
    mInternal->mConnector->setSocketSetupCallback(callback);
}

void StreamClient::setMaxInputBufferSize(size_t sizeBytes) {
    mInternal->mSettings.maxInputBufferSize = sizeBytes;
}

void StreamClient::setMaxOutputBufferSize(size_t sizeBytes) {
    mInternal->mSettings.maxOutputBufferSize = sizeBytes;
}

EventLoop* StreamClient::getLoop() const {
    return mInternal->mLoop;
}

const std::string& StreamClient::name() const {
    return mInternal->mName;
}

InetAddress StreamClient::serverAddr() const {
    return mInternal->mConnector->serverAddr();
}

bool StreamClient::checkServerAddress(const InetAddress& addr) const {
    return addr.family() == AF_INET || addr.family() == AF_INET6 || addr.family() == AF_UNIX;
}

}  // namespace Vantel::Orbel
