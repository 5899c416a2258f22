#include "Vantel/Orbel/StreamSocket.h"

#include <sys/socket.h>

#include <chrono>
#include <thread>

#include "Vantel/Orbel/InetAddress.h"
#include "net/Deadline.h"
#include "net/SocketError.h"

namespace Vantel::Orbel {

namespace {

constexpr size_t kMaxTransfer = 0x7FFFFFFF;

int creationType(bool nonBlocking) {
    return SOCK_STREAM | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0);
}

bool badBuffer(int fd, const void* buffer, size_t length) {
    return fd < 0 || (buffer == nullptr && length > 0);
}

/// Connects a Unix socket whose listener's backlog was full, which poll() cannot wait for.
bool connectOnceBacklogHasRoom(int fd, const InetAddress& addr, const Deadline& deadline) {
    constexpr std::chrono::milliseconds kPause(2);
    do {
        std::this_thread::sleep_for(kPause);
        if (::connect(fd, addr.getSockAddr(), addr.getSockLen()) == 0) {
            return true;
        }
        if (errno != EAGAIN) {
            logSocketError("connect");
            return false;
        }
    } while (deadline.leftMs() > 0);
    errno = ETIMEDOUT;
    logSocketError("connect wait writable");
    return false;
}

}  // namespace

StreamSocket::StreamSocket() : StreamSocket(AF_INET, true) {}

StreamSocket::StreamSocket(int family, bool nonBlocking) : StreamSocket(family, 0, nonBlocking) {}

StreamSocket::StreamSocket(int family, int protocol, bool nonBlocking)
    : Socket(family, creationType(nonBlocking), protocol) {}

StreamSocket::StreamSocket(int fd) : Socket(fd) {}

int StreamSocket::accept(InetAddress* peer) {
    if (fd() < 0) {
        return static_cast<int>(fail(EBADF));
    }
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    const int accepted = ::accept4(fd(), reinterpret_cast<sockaddr*>(&storage), &length,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted < 0) {
        if (errno != EAGAIN) {
            logSocketError("accept");
        }
        return -1;
    }
    if (peer != nullptr) {
        peer->setSockAddrStorage(storage);
    }
    return accepted;
}

bool StreamSocket::connect(const InetAddress& addr, int timeoutMs) {
    if (fd() < 0) {
        return refuse(EBADF);
    }
    if (!checkAddressFamily(addr, "stream connect")) {
        return false;
    }
    const Deadline deadline(timeoutMs);
    if (::connect(fd(), addr.getSockAddr(), addr.getSockLen()) == 0) {
        return true;
    }
    // A Unix socket that answers EAGAIN has begun nothing, although poll() would call it writable.
    const bool backlogFull = errno == EAGAIN && addr.family() == AF_UNIX;
    if ((errno != EINPROGRESS && errno != EAGAIN) || (backlogFull && timeoutMs < 1)) {
        logSocketError("connect");
        return false;
    }
    if (timeoutMs < 1) {
        return refuse(EINPROGRESS);
    }
    ORBEL_LOG_WARN(" connect in progress, waiting for completion\n");
    if (backlogFull) {
        return connectOnceBacklogHasRoom(fd(), addr, deadline);
    }
    int revents = 0;
    if (!waitWritable(timeoutMs, &revents)) {
        logSocketError("connect wait writable");
        return false;
    }
    if ((revents & kWriteEvent) == 0) {
        ORBEL_LOG_ERROR("connect failed: unexpected wait revents=0x%x\n",
                        static_cast<unsigned>(revents));
        return false;
    }
    errno = getSocketError();
    if (errno != 0) {
        logSocketError("connect");
        return false;
    }
    return true;
}

bool StreamSocket::listen(int backlog) {
    if (fd() < 0) {
        return refuse(EBADF);
    }
    return succeeded(::listen(fd(), backlog), "listen");
}

ssize_t StreamSocket::send(const void* buffer, size_t length, int flags) {
    if (badBuffer(fd(), buffer, length)) {
        return fail(EINVAL);
    }
    return ::send(fd(), buffer, length, flags | MSG_NOSIGNAL);
}

ssize_t StreamSocket::recv(void* buffer, size_t length, int flags) {
    if (badBuffer(fd(), buffer, length)) {
        return fail(EINVAL);
    }
    return ::recv(fd(), buffer, length, flags);
}

ssize_t StreamSocket::sendAll(const void* buffer, size_t length, int flags, int timeoutMs) {
    if (length == 0) {
        return 0;
    }
    if (badBuffer(fd(), buffer, length)) {
        return fail(EINVAL);
    }
    if (length > kMaxTransfer) {
        return fail(EMSGSIZE);
    }
    const Deadline deadline(timeoutMs);
    const auto* const bytes = static_cast<const unsigned char*>(buffer);
    size_t sent = 0;
    while (sent < length) {
        const ssize_t count = ::send(fd(), bytes + sent, length - sent, flags | MSG_NOSIGNAL);
        if (count > 0) {
            sent += static_cast<size_t>(count);
            continue;
        }
        if (count == 0) {
            ORBEL_LOG_ERROR("StreamSocket::send returned 0, sent=%zu, len=%zu\n", sent, length);
            return -1;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN) {
            const int error = errno;
            ORBEL_LOG_ERROR("StreamSocket::send failed: %s, sent=%zu, len=%zu\n",
                            std::strerror(error), sent, length);
            return fail(error);
        }
        const int leftMs = deadline.leftMs();
        if (timeoutMs >= 0 && leftMs < 1) {
            ORBEL_LOG_ERROR("StreamSocket::send timeout, sent=%zu, len=%zu, timeout=%dms\n", sent,
                            length, timeoutMs);
            return fail(ETIMEDOUT);
        }
        int revents = 0;
        if (!waitWritable(leftMs, &revents)) {
            const int error = errno;
            ORBEL_LOG_ERROR("StreamSocket::send wait writable failed: %s, sent=%zu, len=%zu\n",
                            std::strerror(error), sent, length);
            return fail(error);
        }
        if ((revents & kWriteEvent) == 0) {
            return fail(EAGAIN);
        }
    }
    return static_cast<ssize_t>(sent);
}

ssize_t StreamSocket::recvAll(void* buffer, size_t length, int flags, int timeoutMs) {
    if (badBuffer(fd(), buffer, length)) {
        return fail(EINVAL);
    }
    if (length == 0) {
        return 0;
    }
    if (length > kMaxTransfer) {
        return fail(EMSGSIZE);
    }
    const Deadline deadline(timeoutMs);
    auto* const bytes = static_cast<unsigned char*>(buffer);
    size_t received = 0;
    while (received < length) {
        const ssize_t count =
            ::recv(fd(), bytes + received, length - received, flags & ~MSG_WAITALL);
        if (count > 0) {
            received += static_cast<size_t>(count);
            continue;
        }
        if (count == 0) {
            return fail(ECONNRESET);
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN) {
            return -1;
        }
        const int leftMs = deadline.leftMs();
        if (timeoutMs >= 0 && leftMs < 1) {
            return fail(ETIMEDOUT);
        }
        int revents = 0;
        if (!waitReadable(leftMs, &revents)) {
            return -1;
        }
        if ((revents & kReadEvent) == 0) {
            return fail(EAGAIN);
        }
    }
    return static_cast<ssize_t>(received);
}

ssize_t StreamSocket::readv(const iovec* vectors, int count) {
    if (fd() < 0 || vectors == nullptr || count < 1) {
        return fail(EINVAL);
    }
    return ::readv(fd(), vectors, count);
}

ssize_t StreamSocket::writev(const iovec* vectors, int count, int flags) {
    if (fd() < 0 || vectors == nullptr || count < 1) {
        return fail(EINVAL);
    }
    if (count == 1) {  // the usual case, and cheaper than sendmsg
        return ::send(fd(), vectors->iov_base, vectors->iov_len, flags | MSG_NOSIGNAL);
    }
    msghdr header{};  // not ::writev: only sendmsg can be told not to raise SIGPIPE
    header.msg_iov = const_cast<iovec*>(vectors);
    header.msg_iovlen = static_cast<size_t>(count);
    return ::sendmsg(fd(), &header, flags | MSG_NOSIGNAL);
}

bool StreamSocket::shutdownWrite() {
    return shutdown(SHUT_WR);
}

bool StreamSocket::shutdownRead() {
    return shutdown(SHUT_RD);
}

bool StreamSocket::shutdownBoth() {
    return shutdown(SHUT_RDWR);
}

}  // namespace Vantel::Orbel
