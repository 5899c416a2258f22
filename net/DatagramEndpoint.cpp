#include "Vantel/Orbel/DatagramEndpoint.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <utility>

#include "Vantel/Orbel/Channel.h"
#include "Vantel/Orbel/DatagramSocket.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "frame/base/Assert.h"
#include "frame/base/Log.h"
#include "net/SocketError.h"
#include "net/StopInLoop.h"

namespace Vantel::Orbel {

namespace {

constexpr size_t kDefaultMaxDatagramSize = 65536;

}  // namespace

/// Before start() of the thread that sets it up, then of the loop's thread, but for the atomics.
class DatagramEndpoint::Internal : public std::enable_shared_from_this<Internal> {
public:
    Internal(DatagramEndpoint* endpoint, EventLoop* loop, const std::string& name)
        : mEndpoint(endpoint), mLoop(loop), mName(name) {}

    bool initial(std::unique_ptr<DatagramSocket> socket);
    int start();
    void stop();
    template <class Send>
    ssize_t send(const Send& sendOn);

    void assertInLoopThread() const {
        ORBEL_ASSERT_TEXT(mLoop->isInLoopThread(), "isInLoopThread()");
    }

    std::atomic<DatagramEndpoint*> mEndpoint;  // null once it is being destroyed
    EventLoop* const mLoop;
    const std::string mName;
    std::unique_ptr<DatagramSocket> mSocket;
    MessageCallback mMessageCallback;
    ReadableCallback mReadableCallback;
    ErrorCallback mErrorCallback;
    std::atomic<bool> mStarted{false};
    std::atomic<bool> mInitialized{false};
    std::atomic<bool> mHasSocket{false};  // mSocket as other threads may see it
    size_t mMaxDatagramSize = kDefaultMaxDatagramSize;

private:
    void handleRead();
    bool receiveOne(DatagramEndpoint* endpoint);
    void disableReading();
    void handleError(int error);

    std::shared_ptr<Channel> mChannel;
    NetBuffer mBuffer{0};
};

/// The channel is tied to itself: a callback may stop the endpoint and give it a new socket, which
/// replaces the channel in the middle of its dispatch.
bool DatagramEndpoint::Internal::initial(std::unique_ptr<DatagramSocket> socket) {
    if (mStarted) {
        return refuse(EBUSY);
    }
    if (!socket || socket->fd() < 0) {
        return refuse(EINVAL);
    }
    if (!socket->setNonBlocking(true)) {
        return false;
    }
    const auto channel = std::make_shared<Channel>(mLoop, socket->fd());
    channel->tie(channel);
    channel->setReadCallback([weak = weak_from_this()] {
        if (const auto self = weak.lock()) {
            self->handleRead();
        }
    });
    channel->setErrorCallback([weak = weak_from_this()] {
        if (const auto self = weak.lock()) {
            self->assertInLoopThread();
            self->handleError(self->mSocket ? self->mSocket->getSocketError() : errno);
        }
    });
    mChannel = channel;
    mSocket = std::move(socket);
    mHasSocket = true;
    mInitialized = true;
    return true;
}

/// 0, or the errno: the caller may wait in another thread.
int DatagramEndpoint::Internal::start() {
    if (mStarted) {
        return 0;
    }
    if (!mInitialized || !mSocket || !mChannel) {
        return EINVAL;
    }
    mStarted = true;
    mChannel->enableReading();
    return 0;
}

/// Initialized it stays, and the channel too: start() fails then at the missing socket.
void DatagramEndpoint::Internal::stop() {
    if (mChannel && mChannel->isAddedToLoop()) {
        mChannel->disableAll();
        mChannel->remove();
    }
    mHasSocket = false;
    mSocket.reset();
    mStarted = false;
    mBuffer.clear();
}

void DatagramEndpoint::Internal::handleRead() {
    assertInLoopThread();
    DatagramEndpoint* const endpoint = mEndpoint;
    if (endpoint == nullptr) {
        return;  // its clean-up stands in the queue of the loop
    }
    if (mReadableCallback) {
        mReadableCallback(endpoint);
        return;
    }
    if (!mMessageCallback) {
        disableReading();
        return;
    }
    while (mStarted && mSocket && receiveOne(endpoint)) {
    }
}

/// Reading stays off until the endpoint gets another socket.
void DatagramEndpoint::Internal::disableReading() {
    ORBEL_LOG_WARN(
        " DatagramEndpoint::handleRead [%s] readable event without callback, disabling reading\n",
        mName.c_str());
    if (mChannel->isAddedToLoop() && mChannel->isReading()) {
        mChannel->disableReading();
    }
}

/// Whether more may wait. The callback may stop the endpoint, and even destroy it.
bool DatagramEndpoint::Internal::receiveOne(DatagramEndpoint* endpoint) {
    mBuffer.clear();
    mBuffer.resize(mMaxDatagramSize);
    InetAddress peer;
    const ssize_t received = mSocket->recvFrom(mBuffer.data(), mBuffer.size(), &peer, 0);
    if (received >= 0) {
        mBuffer.resize(static_cast<size_t>(received));
        mMessageCallback(endpoint, &mBuffer, peer);
        return true;
    }
    if (errno == EINTR) {
        return true;
    }
    if (errno != EAGAIN) {
        handleError(errno);
    }
    return false;
}

void DatagramEndpoint::Internal::handleError(int error) {
    ORBEL_LOG_ERROR("DatagramEndpoint::handleError [%s] socket error=%d:%s\n", mName.c_str(), error,
                    strerror(error));
    DatagramEndpoint* const endpoint = mEndpoint;
    if (endpoint != nullptr && mErrorCallback) {
        mErrorCallback(endpoint, error);
    }
}

/// Through the queue of the loop that also its end empties, so that nobody waits for ever.
template <class Send>
ssize_t DatagramEndpoint::Internal::send(const Send& sendOn) {
    if (!mHasSocket) {
        return fail(ENOTCONN);
    }
    if (mLoop->isInLoopThread()) {
        return sendOn(*mSocket);
    }
    ssize_t sent = -1;
    int error = ENOTCONN;
    const auto task = [&] {
        if (mSocket) {
            sent = sendOn(*mSocket);
            error = errno;
        }
    };
    if (!StopInLoop::runAndWait(*mLoop, task)) {
        return fail(ESHUTDOWN);
    }
    return sent < 0 ? fail(error) : sent;
}

DatagramEndpoint::DatagramEndpoint(EventLoop* loop, const std::string& name)
    : mInternal(std::make_shared<Internal>(this, loop, name)) {}

DatagramEndpoint::~DatagramEndpoint() {
    end();
}

/// What the destructor does, before anything is taken apart: a callback that still runs in the
/// loop may use the endpoint until the clean-up has had its turn. A loop that does not run is not
/// waited for; it gets what stands in it to keep.
void DatagramEndpoint::end() {
    const auto internal = mInternal;
    const bool ended = internal->mEndpoint.exchange(nullptr) == nullptr;
    if (ended || (!internal->mStarted && !internal->mInitialized)) {
        return;
    }
    if (!StopInLoop::runAndWait(*internal->mLoop, [&internal] { internal->stop(); })) {
        StopInLoop::queue(*internal->mLoop, [internal] { internal->stop(); });
    }
}

bool DatagramEndpoint::initial(std::unique_ptr<DatagramSocket> socket) {
    return mInternal->initial(std::move(socket));
}

bool DatagramEndpoint::bind(const InetAddress& addr) {
    if (mInternal->mStarted) {
        return refuse(EBUSY);
    }
    auto socket = std::make_unique<DatagramSocket>(addr.family(), true);
    return socket->fd() >= 0 && socket->bind(addr) && initial(std::move(socket));
}

bool DatagramEndpoint::connect(const InetAddress& server) {
    if (mInternal->mStarted) {
        return refuse(EBUSY);
    }
    auto socket = std::make_unique<DatagramSocket>(server.family(), true);
    return socket->fd() >= 0 && socket->connect(server) && initial(std::move(socket));
}

bool DatagramEndpoint::connect(const InetAddress& server, const InetAddress& local) {
    if (mInternal->mStarted) {
        return refuse(EBUSY);
    }
    auto socket = std::make_unique<DatagramSocket>(server.family(), true);
    return socket->fd() >= 0 && socket->bind(local) && socket->connect(server) &&
           initial(std::move(socket));
}

bool DatagramEndpoint::start() {
    if (mInternal->mStarted) {
        return true;
    }
    if (!mInternal->mInitialized) {
        return refuse(EINVAL);
    }
    const int error =
        mInternal->mLoop
            ->runInLoopWithResult<int>([internal = mInternal] { return internal->start(); })
            .get();
    return error == 0 || refuse(error);
}

void DatagramEndpoint::stop() {
    const auto internal = mInternal;
    if (!internal->mStarted && !internal->mInitialized) {
        return;
    }
    if (StopInLoop::runAndWait(*internal->mLoop, [&internal] { internal->stop(); })) {
        return;
    }
    const auto stopped = std::make_shared<std::promise<void>>();
    StopInLoop::queue(*internal->mLoop, [internal, stopped] {
        internal->stop();
        stopped->set_value();
    });
    stopped->get_future().wait();
}

ssize_t DatagramEndpoint::send(const void* buf, size_t len, int flags) {
    return mInternal->send([=](DatagramSocket& socket) { return socket.send(buf, len, flags); });
}

ssize_t DatagramEndpoint::sendTo(const void* buf, size_t len, const InetAddress& addr, int flags) {
    return mInternal->send(
        [&](DatagramSocket& socket) { return socket.sendTo(buf, len, addr, flags); });
}

ssize_t DatagramEndpoint::recv(void* buf, size_t len, int flags) {
    mInternal->assertInLoopThread();
    return mInternal->mSocket ? mInternal->mSocket->recv(buf, len, flags) : fail(ENOTCONN);
}

ssize_t DatagramEndpoint::recvFrom(void* buf, size_t len, InetAddress* peer, int flags) {
    mInternal->assertInLoopThread();
    return mInternal->mSocket ? mInternal->mSocket->recvFrom(buf, len, peer, flags)
                              : fail(ENOTCONN);
}

void DatagramEndpoint::setMessageCallback(const MessageCallback& callback) {
    mInternal->mMessageCallback = callback;
}

void DatagramEndpoint::setReadableCallback(const ReadableCallback& callback) {
    mInternal->mReadableCallback = callback;
}

void DatagramEndpoint::setErrorCallback(const ErrorCallback& callback) {
    mInternal->mErrorCallback = callback;
}

void DatagramEndpoint::setMaxDatagramSize(size_t sizeBytes) {
    if (sizeBytes > 0) {
        mInternal->mMaxDatagramSize = sizeBytes;
    }
}

EventLoop* DatagramEndpoint::getLoop() const {
    return mInternal->mLoop;
}

const DatagramSocket* DatagramEndpoint::getSocket() const {
    return mInternal->mSocket.get();
}

DatagramSocket* DatagramEndpoint::getSocket() {
    return mInternal->mSocket.get();
}

const std::string& DatagramEndpoint::name() const {
    return mInternal->mName;
}

bool DatagramEndpoint::initialized() const {
    return mInternal->mInitialized;
}

bool DatagramEndpoint::started() const {
    return mInternal->mStarted;
}

InetAddress DatagramEndpoint::localAddr() const {
    return mInternal->mSocket ? mInternal->mSocket->getLocalAddress() : InetAddress();
}

}  // namespace Vantel::Orbel
