#include "Vantel/Orbel/StreamServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <future>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "Vantel/Orbel/Acceptor.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/EventLoopGroup.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/TcpSocket.h"
#include "Vantel/Orbel/UnixStreamSocket.h"
#include "frame/base/Assert.h"
#include "frame/base/Log.h"
#include "net/ConnectionSettings.h"
#include "net/StopInLoop.h"

namespace Vantel::Orbel {

/// The acceptor lives in the base loop and each connection in a loop of the group; what crosses
/// between them is a task that holds the connection, and this object only weakly, since the server
/// may be gone by then. The mutex guards the map alone; nothing is called with it.
class StreamServer::Internal : public std::enable_shared_from_this<Internal> {
public:
    Internal(EventLoop* loop, const std::string& name)
        : mLoop(loop),
          mName(name),
          mOwnGroup(std::make_unique<EventLoopGroup>(loop, name)),
          mGroup(mOwnGroup.get()) {}

    void makeAcceptor();
    int listen();
    void newConnection(int fd);
    std::vector<StreamConnectionPtr> closeListener();
    std::vector<StreamConnectionPtr> takeConnections();
    static void drop(const StreamConnectionPtr& connection, bool wait);

    EventLoop* const mLoop;
    const std::string mName;
    InetAddress mListenAddr;
    std::unique_ptr<Acceptor> mAcceptor;
    const std::unique_ptr<EventLoopGroup> mOwnGroup;
    EventLoopGroup* mGroup;
    bool mOwnsGroup = true;
    ConnectionSettings mSettings;
    bool mInitialized = false;
    std::atomic<bool> mStarted{false};
    int32_t mNextConnId = 1;
    size_t mSendBufferSize = 0;
    mutable std::mutex mConnectionsMutex;
    std::map<std::string, StreamConnectionPtr> mConnections;

private:
    void handleClose(const StreamConnectionPtr& connection);
    void remove(const StreamConnectionPtr& connection);
};

void StreamServer::Internal::makeAcceptor() {
    mAcceptor = std::make_unique<Acceptor>(mLoop);
    mAcceptor->setNewConnectionCallback(
        [weak = weak_from_this()](int fd, const InetAddress& /*peer*/) {
            if (const auto self = weak.lock()) {
                self->newConnection(fd);
            } else {
                ::close(fd);
            }
        });
}

/// Base loop thread. 0, or why it cannot listen: the caller may wait in another thread, where the
/// loop's errno is not seen. The server counts as started before the first connection comes in.
int StreamServer::Internal::listen() {
    errno = 0;
    mStarted = mAcceptor->listen();
    return mStarted ? 0 : (errno != 0 ? errno : EINVAL);
}

/// Base loop thread.
void StreamServer::Internal::newConnection(int fd) {
    ORBEL_ASSERT_TEXT(mLoop->isInLoopThread(), "isInLoopThread()");
    EventLoop* const ioLoop = mGroup->getNextLoop();
    char suffix[64];
    snprintf(suffix, sizeof suffix, "-#%d", mNextConnId++);
    const std::string name = mName + suffix;
    std::unique_ptr<StreamSocket> socket;
    if (mListenAddr.family() == AF_UNIX) {
        socket = std::make_unique<UnixStreamSocket>(fd);
    } else {
        socket = std::make_unique<TcpSocket>(fd);
    }
    const StreamConnectionPtr connection =
        mSettings.makeConnection(ioLoop, name, std::move(socket));
    if (!connection) {
        ORBEL_LOG_ERROR("StreamServer::newConnection transport creation failed for %s: %s\n",
                        name.c_str(), strerror(errno));
        return;
    }
    if (mSendBufferSize != 0 && connection->getSocket() != nullptr) {
        connection->getSocket()->setSendBufSize(
            static_cast<int>(std::min(mSendBufferSize, size_t{INT_MAX})));
    }
    connection->setCloseCallback([weak = weak_from_this()](const StreamConnectionPtr& closed) {
        if (const auto self = weak.lock()) {
            self->handleClose(closed);
        }
    });
    {
        std::lock_guard<std::mutex> guard(mConnectionsMutex);
        mConnections[name] = connection;
    }
    ioLoop->runInLoop([connection] { connection->connectEstablished(); });
}

/// Connection's loop thread. The road of a closed connection is connection's loop, base loop,
/// connection's loop, and each step holds it. It is clean-up, and so is done even if a loop ends.
void StreamServer::Internal::handleClose(const StreamConnectionPtr& connection) {
    if (mSettings.callbacks.close) {
        mSettings.callbacks.close(connection);
    }
    const auto removal = [weak = weak_from_this(), connection] {
        if (const auto self = weak.lock()) {
            self->remove(connection);
        }
    };
    if (mLoop->isInLoopThread()) {
        removal();
    } else {
        StopInLoop::queue(*mLoop, removal);
    }
}

/// Base loop thread. A connection that stop() has taken is in its hands.
void StreamServer::Internal::remove(const StreamConnectionPtr& connection) {
    {
        std::lock_guard<std::mutex> guard(mConnectionsMutex);
        if (mConnections.erase(connection->name()) == 0) {
            return;
        }
    }
    StopInLoop::queue(*connection->getLoop(), [connection] { connection->connectDestroyed(); });
}

/// Base loop thread.
std::vector<StreamConnectionPtr> StreamServer::Internal::closeListener() {
    mAcceptor.reset();
    mInitialized = false;
    std::vector<StreamConnectionPtr> connections = takeConnections();
    if (mListenAddr.family() == AF_UNIX) {
        InetAddress::removeUnixSocketFile(mListenAddr.getUnixPath());
    }
    return connections;
}

std::vector<StreamConnectionPtr> StreamServer::Internal::takeConnections() {
    std::map<std::string, StreamConnectionPtr> taken;
    {
        std::lock_guard<std::mutex> guard(mConnectionsMutex);
        taken.swap(mConnections);
    }
    std::vector<StreamConnectionPtr> connections;
    connections.reserve(taken.size());
    for (auto& entry : taken) {
        connections.push_back(std::move(entry.second));
    }
    return connections;
}

/// Any thread. The close callback does not run on this path.
void StreamServer::Internal::drop(const StreamConnectionPtr& connection, bool wait) {
    EventLoop& loop = *connection->getLoop();
    const auto destroy = [connection] {
        connection->setCloseCallback({});
        connection->connectDestroyed();
    };
    if (!wait || !StopInLoop::runAndWait(loop, destroy)) {
        StopInLoop::queue(loop, destroy);
    }
}

StreamServer::StreamServer(EventLoop* loop, const std::string& name)
    : mInternal(std::make_shared<Internal>(loop, name)) {
    mInternal->makeAcceptor();
}

StreamServer::StreamServer(EventLoop* loop, const std::string& name, EventLoopGroup* group)
    : StreamServer(loop, name) {
    setWorkGroup(group);
}

/// A stop() that was ignored has left connections in their loops, which now get them to clean up;
/// the acceptor sees to itself.
StreamServer::~StreamServer() {
    stop();
    for (const StreamConnectionPtr& connection : mInternal->takeConnections()) {
        Internal::drop(connection, false);
    }
}

bool StreamServer::initial(const InetAddress& addr, const std::string& device, bool reusePort) {
    if (mInternal->mStarted) {
        ORBEL_LOG_ERROR("StreamServer::initial failed: server already started\n");
        errno = EISCONN;
        return false;
    }
    if (!checkListenAddress(addr)) {
        ORBEL_LOG_ERROR("StreamServer::initial failed: invalid listen address %s\n",
                        addr.toString().c_str());
        errno = EINVAL;
        return false;
    }
    mInternal->makeAcceptor();
    mInternal->mInitialized = false;
    if (!mInternal->mAcceptor->initial(addr, device, reusePort)) {
        return false;
    }
    mInternal->mListenAddr = mInternal->mAcceptor->listenAddr();
    mInternal->mInitialized = true;
    return true;
}

bool StreamServer::start() {
    Internal& internal = *mInternal;
    if (internal.mStarted) {
        return true;
    }
    if (!internal.mInitialized || !internal.mAcceptor) {
        ORBEL_LOG_ERROR("StreamServer::start failed: server is not initialized\n");
        errno = EINVAL;
        return false;
    }
    if (internal.mOwnsGroup) {
        if (!internal.mGroup->start()) {
            return false;
        }
    } else if (!internal.mGroup->started()) {
        ORBEL_LOG_ERROR("StreamServer::start failed: injected work group is not started\n");
        errno = EINVAL;
        return false;
    }
    const int error =
        internal.mLoop->runInLoopWithResult<int>([&internal] { return internal.listen(); }).get();
    if (error == 0) {
        return true;
    }
    if (internal.mOwnsGroup) {
        internal.mGroup->stop();
    }
    errno = error;
    return false;
}

void StreamServer::stop() {
    const auto internal = mInternal;  // a callback may destroy the server while this waits
    if (!internal->mStarted.exchange(false)) {
        return;
    }
    std::vector<StreamConnectionPtr> connections;
    if (!StopInLoop::runAndWait(*internal->mLoop,
                                [&] { connections = internal->closeListener(); })) {
        ORBEL_LOG_WARN(" StreamServer::stop ignored for %s: event loop is not running\n",
                       internal->mName.c_str());
        return;
    }
    for (const StreamConnectionPtr& connection : connections) {
        Internal::drop(connection, true);
    }
    if (internal->mOwnsGroup) {
        internal->mGroup->stop();
    }
}

void StreamServer::setWorkGroup(EventLoopGroup* group) {
    if (mInternal->mStarted) {
        ORBEL_LOG_WARN(" StreamServer::setWorkGroup ignored: server already started\n");
        return;
    }
    mInternal->mOwnsGroup = group == nullptr;
    mInternal->mGroup = group != nullptr ? group : mInternal->mOwnGroup.get();
}

void StreamServer::setWorkThreadNum(size_t threadNum) {
    if (!mInternal->mOwnsGroup) {
        ORBEL_LOG_WARN(" StreamServer::setWorkThreadNum ignored: work group is injected\n");
        return;
    }
    mInternal->mGroup->setThreadNum(threadNum);
}

void StreamServer::setThreadInitCallback(const ThreadInitCallback& callback) {
    if (!mInternal->mOwnsGroup) {
        ORBEL_LOG_WARN(" StreamServer::setThreadInitCallback ignored: work group is injected\n");
        return;
    }
    mInternal->mGroup->setThreadInitCallback(callback);
}

void StreamServer::setTransportFactory(
    const std::function<std::unique_ptr<StreamTransport>(std::unique_ptr<StreamSocket>)>& factory) {
    if (mInternal->mStarted) {
        ORBEL_LOG_WARN(" StreamServer::setTransportFactory ignored: server already started\n");
        return;
    }
    mInternal->mSettings.transportFactory = factory;
}

void StreamServer::setSendBufferSize(size_t sizeBytes) {
    mInternal->mSendBufferSize = sizeBytes;
}

void StreamServer::setOutputReserve(size_t sizeBytes) {
    setSendBufferSize(sizeBytes);
}

void StreamServer::setMaxInputBufferSize(size_t sizeBytes) {
    mInternal->mSettings.maxInputBufferSize = sizeBytes;
}

void StreamServer::setMaxOutputBufferSize(size_t sizeBytes) {
    mInternal->mSettings.maxOutputBufferSize = sizeBytes;
}

void StreamServer::setConnectionCallback(const StreamConnectionCallback& callback) {
    mInternal->mSettings.callbacks.connection = callback;
}

void StreamServer::setMessageCallback(const StreamMessageCallback& callback) {
    mInternal->mSettings.callbacks.message = callback;
}

void StreamServer::setReadableCallback(const StreamConnectionCallback& callback) {
    mInternal->mSettings.callbacks.readable = callback;
}

void StreamServer::setWritableCallback(const StreamConnectionCallback& callback) {
    mInternal->mSettings.callbacks.writable = callback;
}

void StreamServer::setWriteCompleteCallback(const StreamConnectionCallback& callback) {
    mInternal->mSettings.callbacks.writeComplete = callback;
}

void StreamServer::setErrorCallback(const StreamErrorCallback& callback) {
    mInternal->mSettings.callbacks.error = callback;
}

void StreamServer::setCloseCallback(const StreamConnectionCallback& callback) {
    mInternal->mSettings.callbacks.close = callback;
}

bool StreamServer::started() const {
    return mInternal->mStarted;
}

const std::string& StreamServer::name() const {
    return mInternal->mName;
}

const InetAddress& StreamServer::listenAddr() const {
    return mInternal->mListenAddr;
}

EventLoop* StreamServer::getLoop() const {
    return mInternal->mLoop;
}

size_t StreamServer::connectionCount() const {
    std::lock_guard<std::mutex> guard(mInternal->mConnectionsMutex);
    return mInternal->mConnections.size();
}

bool StreamServer::checkListenAddress(const InetAddress& addr) const {
    return addr.family() == AF_INET || addr.family() == AF_INET6 || addr.family() == AF_UNIX;
}

}  // namespace Vantel::Orbel
