#include "Vantel/Orbel/UnixStreamSocket.h"

#include <sys/socket.h>

#include "Vantel/Orbel/InetAddress.h"
#include "frame/base/ScopeExit.h"
#include "net/ControlMessage.h"
#include "net/SocketError.h"

namespace Vantel::Orbel {

namespace {

static_assert(sizeof(ucred) == 12);

/// Ancillary data with one set of credentials.
struct alignas(cmsghdr) CredentialControl {
    unsigned char bytes[CMSG_SPACE(sizeof(ucred))] = {};
};

bool requireUnix(const InetAddress& addr) {
    if (addr.family() == AF_UNIX) {
        return true;
    }
    ORBEL_LOG_ERROR("UnixStreamSocket only supports Unix domain addresses\n");
    return refuse(EAFNOSUPPORT);
}

template <class T>
void store(T* to, T value) {
    if (to != nullptr) {
        *to = value;
    }
}

}  // namespace

UnixStreamSocket::UnixStreamSocket() : StreamSocket(AF_UNIX, true) {}

UnixStreamSocket::UnixStreamSocket(int fd) : StreamSocket(fd) {}

bool UnixStreamSocket::bind(const InetAddress& addr) {
    if (!requireUnix(addr)) {
        return false;
    }
    InetAddress::removeUnixSocketFile(addr.getUnixPath());  // if it stays, bind says why
    return Socket::bind(addr);
}

bool UnixStreamSocket::connect(const InetAddress& addr, int timeoutMs) {
    return requireUnix(addr) && StreamSocket::connect(addr, timeoutMs);
}

bool UnixStreamSocket::sendCredentials(int pid, unsigned uid, unsigned gid) {
    char byte = 0;
    iovec vector{&byte, sizeof byte};
    CredentialControl control;
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes;
    header.msg_controllen = sizeof control.bytes;
    cmsghdr* const first = CMSG_FIRSTHDR(&header);
    first->cmsg_level = SOL_SOCKET;
    first->cmsg_type = SCM_CREDENTIALS;
    first->cmsg_len = CMSG_LEN(sizeof(ucred));
    const ucred credentials{pid, uid, gid};
    std::memcpy(CMSG_DATA(first), &credentials, sizeof credentials);
    return ::sendmsg(fd(), &header, MSG_NOSIGNAL) > 0;
}

bool UnixStreamSocket::recvCredentials(int* pid, unsigned* uid, unsigned* gid) {
    char byte = 0;
    iovec vector{&byte, sizeof byte};
    CredentialControl control;
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes;
    header.msg_controllen = sizeof control.bytes;
    if (::recvmsg(fd(), &header, MSG_CMSG_CLOEXEC) < 1) {
        return false;
    }
    const ScopeExit dropUninvited([&header] { closeDescriptors(header); });
    const cmsghdr* const first = CMSG_FIRSTHDR(&header);
    if (first == nullptr || first->cmsg_level != SOL_SOCKET ||
        first->cmsg_type != SCM_CREDENTIALS || first->cmsg_len < CMSG_LEN(sizeof(ucred))) {
        return refuse(EPROTO);
    }
    ucred credentials{};
    std::memcpy(&credentials, CMSG_DATA(first), sizeof credentials);
    store(pid, credentials.pid);
    store(uid, credentials.uid);
    store(gid, credentials.gid);
    return true;
}

bool UnixStreamSocket::setPassCred(bool on) {
    const int value = on ? 1 : 0;
    setSocketOption(SOL_SOCKET, SO_PASSCRED, &value, sizeof value);
    return true;  // whatever the outcome: meant so
}

ssize_t UnixStreamSocket::sendWithFds(const void* buffer, size_t length, const int* fds,
                                      size_t fdCount, int flags) {
    if (fd() < 0 || (buffer == nullptr && length > 0) || (fds == nullptr && fdCount > 0) ||
        (fdCount > 0 && length == 0) || fdCount > kMaxPassedDescriptors) {
        return fail(EINVAL);
    }
    iovec vector{const_cast<void*>(buffer), length};
    DescriptorControl<kMaxPassedDescriptors> control;
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    if (fdCount > 0) {
        attachDescriptors(header, control, fds, fdCount);
    }
    return ::sendmsg(fd(), &header, flags | MSG_NOSIGNAL);
}

ssize_t UnixStreamSocket::recvWithFds(void* buffer, size_t length, int* fds, size_t maxFds,
                                      size_t* fdCount, int flags) {
    store(fdCount, size_t{0});
    if (fd() < 0 || (buffer == nullptr && length > 0) || (fds == nullptr && maxFds > 0)) {
        return fail(EINVAL);
    }
    iovec vector{buffer, length};
    DescriptorControl<kMaxPassedDescriptors> control;
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    provideControl(header, control, maxFds);
    const ssize_t received = ::recvmsg(fd(), &header, flags | MSG_CMSG_CLOEXEC);
    if (received < 1) {
        if (received == 0) {
            closeDescriptors(header);  // a read of 0 bytes takes them all the same
        }
        return received;
    }
    size_t taken = 0;
    forEachDescriptor(header, [&](int descriptor) {
        UniqueFd owned(descriptor);
        if (taken < maxFds) {
            fds[taken++] = owned.release();
        }
    });
    if ((header.msg_flags & MSG_CTRUNC) != 0) {
        for (size_t i = 0; i < taken; ++i) {
            UniqueFd dropped(std::exchange(fds[i], -1));
        }
        return fail(EMSGSIZE);
    }
    store(fdCount, taken);
    return received;
}

ssize_t UnixStreamSocket::sendFd(int descriptor, const void* buffer, size_t length) {
    if (descriptor < 0) {
        return send(buffer, length, 0);
    }
    const char zero = 0;  // a descriptor cannot travel alone
    if (buffer == nullptr || length == 0) {
        return sendWithFds(&zero, sizeof zero, &descriptor, 1, 0);
    }
    return sendWithFds(buffer, length, &descriptor, 1, 0);
}

ssize_t UnixStreamSocket::recvFd(int* descriptor, void* buffer, size_t length) {
    if (descriptor == nullptr) {
        return fail(EINVAL);
    }
    *descriptor = -1;
    return recvWithFds(buffer, length, descriptor, 1, nullptr, 0);
}

}  // namespace Vantel::Orbel
