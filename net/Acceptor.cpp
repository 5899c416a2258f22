#include "Vantel/Orbel/Acceptor.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Vantel/Orbel/Channel.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/TcpSocket.h"
#include "Vantel/Orbel/UnixStreamSocket.h"
#include "frame/base/Assert.h"
#include "frame/base/Log.h"
#include "frame/base/UniqueFd.h"
#include "net/StopInLoop.h"

namespace Vantel::Orbel {

namespace {

constexpr int kBacklog = 128;

int openSpareDescriptor() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

class Acceptor::Internal {
public:
    explicit Internal(EventLoop* loop) : mLoop(loop), mIdleFd(openSpareDescriptor()) {
        ORBEL_ASSERT_TEXT(mIdleFd.valid(), "mIdleFd >= 0");
    }

    bool open(const InetAddress& addr, const std::string& device, bool reusePort);
    bool bind(const InetAddress& addr, const std::string& device, bool reusePort);
    void handleRead();
    void dropOnePending();
    void close();

    EventLoop* const mLoop;
    bool mListening = false;
    UniqueFd mIdleFd;  // given up for a moment when the process has no descriptor left
    std::unique_ptr<StreamSocket> mSocket;
    InetAddress mListenAddr;
    std::unique_ptr<Channel> mChannel;
    NewConnectionCallback mNewConnectionCallback;
};

bool Acceptor::Internal::open(const InetAddress& addr, const std::string& device, bool reusePort) {
    mListenAddr = addr;
    mChannel.reset();
    if (addr.family() == AF_UNIX) {
        mSocket = std::make_unique<UnixStreamSocket>();
    } else {
        mSocket = std::make_unique<TcpSocket>(addr.family(), true);
    }
    if (mSocket->fd() < 0) {
        return false;
    }
    mChannel = std::make_unique<Channel>(mLoop, mSocket->fd());
    return bind(addr, device, reusePort);
}

bool Acceptor::Internal::bind(const InetAddress& addr, const std::string& device, bool reusePort) {
    if (!device.empty() && !mSocket->bindToDevice(device)) {
        return false;
    }
    mSocket->setReuseAddr(true);  // wanted, not needed
    if (reusePort && !mSocket->setReusePort(true)) {
        return false;
    }
    if (!mSocket->bind(addr)) {
        return false;
    }
    mSocket->setNonBlocking(true);
    mListenAddr = mSocket->getLocalAddress();
    mChannel->setReadCallback([this] { handleRead(); });
    return true;
}

void Acceptor::Internal::handleRead() {
    ORBEL_ASSERT_TEXT(mLoop->isInLoopThread(), "isInLoopThread()");
    if (!mIdleFd.valid()) {
        mIdleFd.reset(openSpareDescriptor());  // another thread was quicker the last time
    }
    while (mListening) {  // the callback may destroy the acceptor, which then only closes
        InetAddress peer;
        const int fd = mSocket->accept(&peer);
        if (fd >= 0) {
            if (mNewConnectionCallback) {
                mNewConnectionCallback(fd, peer);
            } else {
                ::close(fd);
            }
            continue;
        }
        const int error = errno;
        if (error == EINTR) {
            continue;
        }
        if (error == EMFILE) {
            dropOnePending();
            ORBEL_LOG_ERROR("Acceptor::handleRead - file descriptor exhausted\n");
        } else if (error != EAGAIN) {
            ORBEL_LOG_ERROR("Acceptor::handleRead - accept error: %s\n", strerror(error));
        }
        return;
    }
}

/// The connection would stay in the queue and wake the loop for ever: the spare descriptor makes
/// room to take it off and hang up.
void Acceptor::Internal::dropOnePending() {
    mIdleFd.reset();
    mIdleFd.reset(::accept4(mSocket->fd(), nullptr, nullptr, SOCK_CLOEXEC));
    mIdleFd.reset();
    mIdleFd.reset(openSpareDescriptor());
}

/// The channel leaves the loop before its descriptor is closed, as the poller must find it open.
void Acceptor::Internal::close() {
    mListening = false;
    if (mChannel->isAddedToLoop()) {
        mChannel->disableAll();
        mChannel->remove();
    }
    mSocket.reset();
    mIdleFd.reset();
}

Acceptor::Acceptor(EventLoop* loop) : mInternal(std::make_unique<Internal>(loop)) {}

Acceptor::~Acceptor() {
    if (!mInternal->mChannel || !mInternal->mChannel->isAddedToLoop()) {
        return;
    }
    // The channel or the callback may be what runs just now: a task holds them until that is over.
    const std::shared_ptr<Internal> internal = std::move(mInternal);
    EventLoop& loop = *internal->mLoop;
    const auto closeAndHold = [&] {
        internal->close();
        StopInLoop::queue(loop, [internal] {});
    };
    if (!StopInLoop::runAndWait(loop, closeAndHold)) {
        StopInLoop::queue(loop, [internal] { internal->close(); });
    }
}

bool Acceptor::initial(const InetAddress& addr, const std::string& device, bool reusePort) {
    if (mInternal->mListening) {
        errno = EINVAL;
        return false;
    }
    if (mInternal->open(addr, device, reusePort)) {
        return true;
    }
    const int error = errno;
    mInternal->mChannel.reset();
    mInternal->mSocket.reset();  // an unbound socket must not listen on a port that nobody chose
    errno = error;
    return false;
}

bool Acceptor::listen() {
    ORBEL_ASSERT_TEXT(mInternal->mLoop->isInLoopThread(), "isInLoopThread()");
    if (mInternal->mListening) {
        return true;
    }
    if (!mInternal->mSocket) {
        errno = EBADF;
        return false;
    }
    if (!mInternal->mSocket->listen(kBacklog)) {
        return false;
    }
    mInternal->mListening = mInternal->mChannel->enableReading();
    return mInternal->mListening;
}

void Acceptor::setNewConnectionCallback(const NewConnectionCallback& callback) {
    mInternal->mNewConnectionCallback = callback;
}

bool Acceptor::listening() const {
    return mInternal->mListening;
}

const InetAddress& Acceptor::listenAddr() const {
    return mInternal->mListenAddr;
}

}  // namespace Vantel::Orbel
