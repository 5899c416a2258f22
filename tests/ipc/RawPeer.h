#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "frame/base/UniqueFd.h"

namespace OrbelTest {

using Vantel::Orbel::UniqueFd;

inline sockaddr_un unixAddress(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

/// A blocking connection to the Unix socket at `path`, by plain system calls.
inline UniqueFd rawConnect(const std::string& path) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = unixAddress(path);
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fd.reset();
    }
    return fd;
}

/// A listener at `path`.
inline UniqueFd rawListen(const std::string& path) {
    unlink(path.c_str());
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = unixAddress(path);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd.get(), 16) != 0) {
        fd.reset();
    }
    return fd;
}

inline bool readable(int fd, int deadlineMs) {
    pollfd poll{fd, POLLIN, 0};
    return ::poll(&poll, 1, deadlineMs) == 1;
}

/// The next connection, or none after `deadlineMs`.
inline UniqueFd rawAccept(int listener, int deadlineMs = 30000) {
    return UniqueFd(
        readable(listener, deadlineMs) ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1);
}

/// Sends `size` bytes in one piece with `fds` attached; what sendmsg returned.
inline ssize_t rawSend(int fd, const void* bytes, size_t size, const std::vector<int>& fds = {}) {
    iovec vector{const_cast<void*>(bytes), size};
    alignas(cmsghdr) char control[CMSG_SPACE(16 * sizeof(int))] = {};
    msghdr header = {};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    if (!fds.empty()) {
        header.msg_control = control;
        header.msg_controllen = CMSG_SPACE(fds.size() * sizeof(int));
        cmsghdr* const first = CMSG_FIRSTHDR(&header);
        first->cmsg_level = SOL_SOCKET;
        first->cmsg_type = SCM_RIGHTS;
        first->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
        std::memcpy(CMSG_DATA(first), fds.data(), fds.size() * sizeof(int));
    }
    return sendmsg(fd, &header, MSG_NOSIGNAL);
}

/// Reads exactly `size` bytes, and takes over at most one descriptor. False at the end of the
/// stream, on an error, or after `deadlineMs` of silence.
inline bool rawReceive(int fd, void* bytes, size_t size, UniqueFd& descriptor,
                       int deadlineMs = 30000) {
    size_t got = 0;
    while (got < size) {
        iovec vector{static_cast<char*>(bytes) + got, size - got};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        msghdr header = {};
        header.msg_iov = &vector;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        const ssize_t count =
            readable(fd, deadlineMs) ? recvmsg(fd, &header, MSG_CMSG_CLOEXEC) : -1;
        if (count <= 0) {
            return false;
        }
        got += static_cast<size_t>(count);
        if (const cmsghdr* const first = CMSG_FIRSTHDR(&header)) {
            int received = -1;
            std::memcpy(&received, CMSG_DATA(first), sizeof received);
            descriptor.reset(received);
        }
    }
    return true;
}

}  // namespace OrbelTest
