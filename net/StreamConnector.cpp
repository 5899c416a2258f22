#include "Vantel/Orbel/StreamConnector.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include "Vantel/Orbel/Channel.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/TcpSocket.h"
#include "Vantel/Orbel/UnixStreamSocket.h"
#include "frame/base/Assert.h"
#include "frame/base/Log.h"
#include "net/StopInLoop.h"

namespace Vantel::Orbel {

namespace {

constexpr int32_t kFirstRetryDelayMs = 100;
constexpr int32_t kMaxRetryDelayMs = 1000;

int errnoOr(int fallback) {
    return errno != 0 ? errno : fallback;
}

std::unique_ptr<StreamSocket> makeSocket(const InetAddress& addr) {
    if (addr.family() == AF_UNIX) {
        return std::make_unique<UnixStreamSocket>();
    }
    return std::make_unique<TcpSocket>(addr.family(), true);
}

/// A Unix listener with a full queue answers EAGAIN and has begun nothing: waiting for such a
/// socket would end in a "success" that is not connected.
bool isUnderWay(int error, const InetAddress& addr) {
    return error == EINPROGRESS || error == EINTR || (error == EAGAIN && addr.family() != AF_UNIX);
}

}  // namespace

/// Loop thread only, but for the atomics and for the address under its mutex. Callbacks from the
/// loop refer to this object weakly, know the number of their attempt where that may be over, and
/// hold the object while they run, since the owner may stop or destroy the connector from inside.
class StreamConnector::Internal : public std::enable_shared_from_this<Internal> {
public:
    Internal(EventLoop* loop, const std::string& name) : mLoop(loop), mName(name) {}

    bool connect(int32_t timeoutMs);
    void stop();

    InetAddress serverAddr() const {
        std::lock_guard<std::mutex> guard(mAddrMutex);
        return mServerAddr;
    }
    std::string serverText() const { return serverAddr().toString(); }

    EventLoop* const mLoop;
    const std::string mName;
    std::unique_ptr<StreamSocket> mSocket;
    InetAddress mServerAddr;
    std::shared_ptr<Channel> mChannel;
    std::atomic<bool> mConnect{false};
    std::atomic<bool> mRetry{false};
    int32_t mRetryDelayMs = kFirstRetryDelayMs;
    unsigned long mTimeoutTimerId = 0;
    unsigned long mRetryTimerId = 0;
    int32_t mTimeoutMs = 0;
    mutable std::mutex mAddrMutex;
    ConnectedCallback mConnectedCallback;
    SocketSetupCallback mSocketSetupCallback;
    bool mHasServerAddr = false;
    enum State : int32_t { kIdle = 0, kConnecting = 1 } mState = kIdle;
    uint64_t mAttempt = 0;  // tells late events and nested calls that their attempt is over

private:
    bool setUp(StreamSocket& socket);
    bool wait();
    void handleTimeout(int fd);
    void handleEvent(uint64_t attempt);
    void handOver(std::unique_ptr<StreamSocket> socket);
    bool retry(int error, bool deferDestroy);
    void cleanUpChannel(bool deferDestroy);
    void cancel(unsigned long& timerId);
};

bool StreamConnector::Internal::connect(int32_t timeoutMs) {
    if (!mHasServerAddr) {
        errno = EDESTADDRREQ;
        return false;
    }
    if (mState == kConnecting) {
        errno = EALREADY;
        return false;
    }
    const auto self = shared_from_this();
    cancel(mTimeoutTimerId);
    cancel(mRetryTimerId);
    cleanUpChannel(false);
    mTimeoutMs = timeoutMs;
    mState = kConnecting;
    mSocket.reset();
    const uint64_t attempt = ++mAttempt;

    const InetAddress addr = serverAddr();
    errno = 0;
    std::unique_ptr<StreamSocket> socket = makeSocket(addr);
    if (socket->fd() < 0) {
        return retry(errnoOr(EINVAL), false);
    }
    if (!setUp(*socket)) {
        return false;
    }
    if (attempt != mAttempt) {  // the callback stopped this attempt, and perhaps began another
        errno = ECANCELED;
        return false;
    }
    if (::connect(socket->fd(), addr.getSockAddr(), addr.getSockLen()) == 0) {
        handOver(std::move(socket));
        return true;
    }
    if (!isUnderWay(errno, addr)) {
        const int error = errno;
        socket.reset();
        return retry(error, false);
    }
    mSocket = std::move(socket);
    return wait();
}

/// A refusal by the owner is final: no retry follows.
bool StreamConnector::Internal::setUp(StreamSocket& socket) {
    if (!mSocketSetupCallback) {
        return true;
    }
    const uint64_t attempt = mAttempt;
    errno = 0;
    if (mSocketSetupCallback(&socket)) {
        return true;
    }
    const int error = errnoOr(EINVAL);
    ORBEL_LOG_ERROR("StreamConnector::connect socket setup failed for %s: %s\n",
                    serverText().c_str(), strerror(error));
    if (attempt == mAttempt) {
        mState = kIdle;
    }
    errno = error;
    return false;
}

bool StreamConnector::Internal::wait() {
    const uint64_t attempt = mAttempt;
    mChannel = std::make_shared<Channel>(mLoop, mSocket->fd());
    const auto handle = [weak = weak_from_this(), attempt] {
        if (const auto self = weak.lock()) {  // one dispatch may call twice, the first be the end
            self->handleEvent(attempt);
        }
    };
    mChannel->setWriteCallback(handle);
    mChannel->setErrorCallback(handle);
    mChannel->setCloseCallback(handle);
    if (!mChannel->enableWriting()) {
        return retry(errnoOr(EINVAL), false);  // nothing would ever report the end of this attempt
    }
    if (mTimeoutMs >= 1) {
        mTimeoutTimerId = mLoop->runInLoopAfter(
            [weak = weak_from_this(), fd = mSocket->fd()] {
                if (const auto self = weak.lock()) {
                    self->handleTimeout(fd);
                }
            },
            mTimeoutMs);
    }
    return true;
}

void StreamConnector::Internal::handleTimeout(int fd) {
    mTimeoutTimerId = 0;
    if (mState == kConnecting && mSocket && mSocket->fd() == fd) {
        ORBEL_LOG_WARN(" StreamConnector::connect timeout for %s\n", serverText().c_str());
        retry(ETIMEDOUT, false);
    }
}

void StreamConnector::Internal::handleEvent(uint64_t attempt) {
    if (attempt != mAttempt) {
        return;  // one dispatch reports error and writability; the first ended the attempt
    }
    if (mState != kConnecting || !mSocket) {
        cleanUpChannel(true);
        return;
    }
    const int error = mSocket->getSocketError();
    if (error != 0) {
        ORBEL_LOG_WARN(" StreamConnector::connect failed for %s: %s\n", serverText().c_str(),
                       strerror(error));
        retry(error, true);
        return;
    }
    cleanUpChannel(true);
    handOver(std::move(mSocket));
}

void StreamConnector::Internal::handOver(std::unique_ptr<StreamSocket> socket) {
    cancel(mTimeoutTimerId);
    cancel(mRetryTimerId);
    cleanUpChannel(false);
    mState = kIdle;
    mRetryDelayMs = kFirstRetryDelayMs;
    if (mConnectedCallback) {
        mConnectedCallback(std::move(socket));
    }
}

/// True if another attempt is scheduled; errno is `error` in any case.
bool StreamConnector::Internal::retry(int error, bool deferDestroy) {
    cancel(mTimeoutTimerId);
    cancel(mRetryTimerId);
    cleanUpChannel(deferDestroy);
    mSocket.reset();
    mState = kIdle;
    const bool again = mConnect && mRetry;
    if (again) {
        ORBEL_LOG_WARN(" StreamConnector::retry - Retry connecting to %s in %d milliseconds\n",
                       serverText().c_str(), mRetryDelayMs);
        mRetryTimerId = mLoop->runInLoopAfter(
            [weak = weak_from_this()] {
                if (const auto self = weak.lock()) {
                    self->mRetryTimerId = 0;
                    self->connect(self->mTimeoutMs);
                }
            },
            mRetryDelayMs);
        mRetryDelayMs = std::min(mRetryDelayMs * 2, kMaxRetryDelayMs);
    }
    errno = error;
    return again;
}

/// `deferDestroy`: the caller runs inside the channel's own callback, which must outlive it.
void StreamConnector::Internal::cleanUpChannel(bool deferDestroy) {
    if (!mChannel) {
        return;
    }
    const std::shared_ptr<Channel> channel = std::move(mChannel);
    if (channel->isAddedToLoop()) {
        channel->disableAll();
        channel->remove();
    }
    if (deferDestroy) {
        mLoop->queueInLoop([channel] {});
    }
}

void StreamConnector::Internal::cancel(unsigned long& timerId) {
    if (timerId != 0) {
        mLoop->cancelTimer(std::exchange(timerId, 0));
    }
}

void StreamConnector::Internal::stop() {
    mConnect = false;
    cancel(mTimeoutTimerId);
    cancel(mRetryTimerId);
    cleanUpChannel(false);
    mSocket.reset();
    mState = kIdle;
    ++mAttempt;
}

StreamConnector::StreamConnector(EventLoop* loop, const std::string& name)
    : mInternal(std::make_shared<Internal>(loop, name)) {}

StreamConnector::~StreamConnector() {
    stop();
    // Nothing is left unless the loop does not run: then what it still holds is cleaned up later.
    if (mInternal->mLoop && !mInternal->mLoop->isInLoopThread()) {
        StopInLoop::queue(*mInternal->mLoop, [internal = mInternal] { internal->stop(); });
    }
}

bool StreamConnector::start(const InetAddress& addr, int32_t timeoutMs) {
    ORBEL_ASSERT_TEXT(mInternal->mLoop->isInLoopThread(), "isInLoopThread()");
    if (mInternal->mState == Internal::kConnecting) {
        errno = EALREADY;
        return false;
    }
    {
        std::lock_guard<std::mutex> guard(mInternal->mAddrMutex);
        mInternal->mServerAddr = addr;
        mInternal->mHasServerAddr = true;
    }
    mInternal->mConnect = true;
    mInternal->mRetryDelayMs = kFirstRetryDelayMs;
    return mInternal->connect(timeoutMs);
}

bool StreamConnector::restart(int32_t timeoutMs) {
    ORBEL_ASSERT_TEXT(mInternal->mLoop->isInLoopThread(), "isInLoopThread()");
    if (mInternal->mState == Internal::kConnecting || !mInternal->mHasServerAddr) {
        errno = mInternal->mHasServerAddr ? EALREADY : EDESTADDRREQ;
        return false;
    }
    mInternal->mConnect = true;
    return mInternal->connect(timeoutMs);
}

void StreamConnector::stop() {
    mInternal->mConnect = false;
    if (!mInternal->mLoop) {
        return;
    }
    if (!StopInLoop::runAndWait(*mInternal->mLoop, [this] { mInternal->stop(); })) {
        ORBEL_LOG_WARN(" StreamConnector::stop ignored for %s: event loop is not running\n",
                       mInternal->serverText().c_str());
    }
}

void StreamConnector::setConnectedCallback(const ConnectedCallback& callback) {
    mInternal->mConnectedCallback = callback;
}

void StreamConnector::setSocketSetupCallback(const SocketSetupCallback& callback) {
    mInternal->mSocketSetupCallback = callback;
}

void StreamConnector::setRetry(bool retry) {
    mInternal->mRetry = retry;
}

InetAddress StreamConnector::serverAddr() const {
    return mInternal->serverAddr();
}

}  // namespace Vantel::Orbel
