#include "Vantel/Orbel/Socket.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <utility>

#include "Vantel/Orbel/InetAddress.h"
#include "net/SocketError.h"

namespace Vantel::Orbel {

namespace {

using AddressCall = int (*)(int, sockaddr*, socklen_t*);

/// One body for both ends, with and without an object; `what` stands in the log line.
InetAddress askAddress(AddressCall call, int fd, const char* what) {
    InetAddress addr;
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (succeeded(call(fd, reinterpret_cast<sockaddr*>(&storage), &length), what)) {
        addr.setSockAddrStorage(storage);
    }
    return addr;
}

int socketAttribute(int fd, int name) {
    int value = 0;
    socklen_t length = sizeof value;
    return ::getsockopt(fd, SOL_SOCKET, name, &value, &length) == 0 ? value : 0;
}

int socketFamily(int fd) {
    const int family = socketAttribute(fd, SO_DOMAIN);
    if (family != 0) {
        return family;
    }
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    return ::getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) == 0
               ? storage.ss_family
               : 0;
}

}  // namespace

Socket::Socket(int family, int type, int protocol)
    : mFd(create(family, type, protocol)), mFamily(0), mType(0), mProtocol(0) {
    if (mFd >= 0) {
        mFamily = family;
        mType = type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC);
        mProtocol = protocol;
    }
}

Socket::Socket(int fd) : mFd(fd < 0 ? -1 : fd), mFamily(0), mType(0), mProtocol(0) {
    if (mFd >= 0) {
        mFamily = socketFamily(mFd);
        mType = socketAttribute(mFd, SO_TYPE) & ~(SOCK_NONBLOCK | SOCK_CLOEXEC);
        mProtocol = socketAttribute(mFd, SO_PROTOCOL);
    }
}

Socket::Socket(Socket&& other) noexcept : mFd(-1), mFamily(0), mType(0), mProtocol(0) {
    adopt(other);
}

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other) {
        close();
        adopt(other);
    }
    return *this;
}

void Socket::adopt(Socket& other) noexcept {
    mFd = std::exchange(other.mFd, -1);
    mFamily = std::exchange(other.mFamily, 0);
    mType = std::exchange(other.mType, 0);
    mProtocol = std::exchange(other.mProtocol, 0);
}

Socket::~Socket() {
    const int error = errno;  // who drops a socket after a failure reports that failure
    close();
    errno = error;
}

bool Socket::bind(const InetAddress& addr) {
    if (mFd < 0) {
        return refuse(EBADF);
    }
    return checkAddressFamily(addr, "bind") &&
           succeeded(::bind(mFd, addr.getSockAddr(), addr.getSockLen()), "bind");
}

bool Socket::close() {
    if (mFd < 0) {
        return refuse(EBADF);
    }
    ::close(mFd);
    mFd = -1;
    mFamily = mType = mProtocol = 0;
    return true;
}

bool Socket::shutdown(int how) {
    if (mFd < 0) {
        return refuse(EBADF);
    }
    return succeeded(::shutdown(mFd, how), "shutdown");
}

bool Socket::setCloseOnExec(bool on) {
    const int flags = ::fcntl(mFd, F_GETFD);
    if (flags < 0) {
        return false;
    }
    return ::fcntl(mFd, F_SETFD, on ? flags | FD_CLOEXEC : flags & ~FD_CLOEXEC) == 0;
}

int Socket::getFileFlags() const {
    return ::fcntl(mFd, F_GETFL);
}

bool Socket::setFileFlags(int flags) {
    return ::fcntl(mFd, F_SETFL, flags) == 0;
}

bool Socket::isNonBlocking() const {
    const int flags = getFileFlags();
    return flags >= 0 && (flags & O_NONBLOCK) != 0;
}

bool Socket::setNonBlocking(bool on) {
    const int flags = getFileFlags();
    if (flags < 0) {
        return false;
    }
    const int wanted = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    return wanted == flags || setFileFlags(wanted);
}

bool Socket::bindToDevice(const std::string& name) {
    constexpr int kMaxLength = IFNAMSIZ - 1;
    if (name.empty()) {
        ORBEL_LOG_ERROR("bindToDevice: device name cannot be empty\n");
        return refuse(EINVAL);
    }
    if (name.size() > kMaxLength) {
        ORBEL_LOG_ERROR("bindToDevice: device name too long (max %d chars)\n", kMaxLength);
        return refuse(EINVAL);
    }
    if (::setsockopt(mFd, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(),
                     static_cast<socklen_t>(name.size() + 1)) == 0) {
        return true;
    }
    const int error = errno;
    ORBEL_LOG_ERROR("bindToDevice failed for device '%s': %s\n", name.c_str(),
                    std::strerror(error));
    if (error == EPERM) {
        ORBEL_LOG_ERROR("Note: SO_BINDTODEVICE typically requires root privileges\n");
    }
    return refuse(error);
}

InetAddress Socket::getLocalAddress() const {
    return askAddress(&::getsockname, mFd, "getsockname");
}

InetAddress Socket::getPeerAddress() const {
    return askAddress(&::getpeername, mFd, "getpeername");
}

InetAddress Socket::getLocalAddr(int fd) {
    return askAddress(&::getsockname, fd, "getLocalAddr");
}

InetAddress Socket::getPeerAddr(int fd) {
    return askAddress(&::getpeername, fd, "getPeerAddr");
}

bool Socket::setSocketOption(int level, int name, const void* value, unsigned length) {
    if (mFd < 0) {
        return refuse(EBADF);
    }
    return succeeded(::setsockopt(mFd, level, name, value, length), "setsockopt");
}

bool Socket::getSocketOption(int level, int name, void* value, unsigned* length) const {
    if (mFd < 0) {
        return refuse(EBADF);
    }
    return succeeded(::getsockopt(mFd, level, name, value, length), "getsockopt");
}

bool Socket::setIntOption(int level, int name, int value) {
    return setSocketOption(level, name, &value, sizeof value);
}

int Socket::getIntOption(int level, int name) const {
    int value = 0;
    unsigned length = sizeof value;
    return getSocketOption(level, name, &value, &length) ? value : -1;
}

bool Socket::setTimeoutOption(int name, int timeoutMs) {
    if (timeoutMs < 0) {
        return refuse(EINVAL);
    }
    timeval value{};
    value.tv_sec = timeoutMs / 1000;
    value.tv_usec = (timeoutMs % 1000) * 1000;
    return setSocketOption(SOL_SOCKET, name, &value, sizeof value);
}

bool Socket::setReuseAddr(bool on) {
    return setIntOption(SOL_SOCKET, SO_REUSEADDR, on ? 1 : 0);
}

bool Socket::setReusePort(bool on) {
    return setIntOption(SOL_SOCKET, SO_REUSEPORT, on ? 1 : 0);
}

bool Socket::setRecvBufSize(int sizeBytes) {
    return setIntOption(SOL_SOCKET, SO_RCVBUF, sizeBytes);
}

bool Socket::setSendBufSize(int sizeBytes) {
    return setIntOption(SOL_SOCKET, SO_SNDBUF, sizeBytes);
}

bool Socket::setRecvTimeout(int timeoutMs) {
    return setTimeoutOption(SO_RCVTIMEO, timeoutMs);
}

bool Socket::setSendTimeout(int timeoutMs) {
    return setTimeoutOption(SO_SNDTIMEO, timeoutMs);
}

int Socket::getRecvBufSize() const {
    return getIntOption(SOL_SOCKET, SO_RCVBUF);
}

int Socket::getSendBufSize() const {
    return getIntOption(SOL_SOCKET, SO_SNDBUF);
}

int Socket::getSocketError() const {
    const int error = getIntOption(SOL_SOCKET, SO_ERROR);
    return error >= 0 ? error : errno;
}

int Socket::create(int family, int type, int protocol) {
    const int fd = ::socket(family, type, protocol);
    return succeeded(fd, "create socket") ? fd : -1;
}

bool Socket::checkAddressFamily(const InetAddress& addr, const char* what) const {
    if (!addr.isValid()) {
        ORBEL_LOG_ERROR("%s failed: invalid socket address\n", what);
        return refuse(EINVAL);
    }
    if (mFamily == 0 || mFamily == addr.family()) {
        return true;  // a socket of unknown family takes anything
    }
    ORBEL_LOG_ERROR("%s failed: socket family %d does not match address family %d\n", what, mFamily,
                    static_cast<int>(addr.family()));
    return refuse(EAFNOSUPPORT);
}

}  // namespace Vantel::Orbel
