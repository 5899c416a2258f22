#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ostream>
#include <string>

#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/Socket.h"
#include "frame/base/UniqueFd.h"
#include "tests/net/LoopSupport.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/TestName.h"

namespace OrbelTest {

using Vantel::Orbel::InetAddress;

/// The two families that every endpoint test runs on.
enum class Family { Tcp, Unix };

inline void PrintTo(Family family, std::ostream* out) {
    *out << (family == Family::Tcp ? "Tcp" : "Unix");
}

inline InetAddress freshAddress(Family family) {
    return family == Family::Tcp ? InetAddress::createLoopback4(0)
                                 : InetAddress::createUnix("/tmp/" + uniqueName("orbel") + ".sock");
}

/// The peer: a blocking socket without any of the library's code.
class Peer {
public:
    explicit Peer(int fd = -1) : mFd(fd) {}
    explicit Peer(const InetAddress& addr)
        : mFd(::socket(addr.family(), SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (::connect(mFd.get(), addr.getSockAddr(), addr.getSockLen()) != 0) {
            mFd.reset();
        }
    }

    bool connected() const { return mFd.valid(); }
    int fd() const { return mFd.get(); }
    void close() { mFd.reset(); }

    /// Closes with a reset (TCP); a Unix socket resets by itself if it leaves bytes unread.
    void reset() {
        const linger now{1, 0};
        ::setsockopt(mFd.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
        mFd.reset();
    }

    bool send(const std::string& text) {
        return ::send(mFd.get(), text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }

    /// Exactly `size` bytes, or what came until the end or for 30 s.
    std::string receive(size_t size) {
        std::string text(size, '\0');
        size_t got = 0;
        pollfd readable{mFd.get(), POLLIN, 0};
        while (got<size&& ::poll(&readable, 1, 30000)> 0) {
            const ssize_t count = ::recv(mFd.get(), &text[got], size - got, 0);
            if (count <= 0) {
                break;
            }
            got += static_cast<size_t>(count);
        }
        text.resize(got);
        return text;
    }

    /// Whether the other side has ended the stream, in order or by a reset, within `deadlineMs`.
    bool ended(int deadlineMs = 30000) {
        pollfd readable{mFd.get(), POLLIN, 0};
        char byte = 0;
        return ::poll(&readable, 1, deadlineMs) > 0 && ::recv(mFd.get(), &byte, 1, 0) <= 0;
    }

private:
    Vantel::Orbel::UniqueFd mFd;
};

/// A listener without any of the library's code.
class PeerListener {
public:
    explicit PeerListener(const InetAddress& addr, int backlog = 16)
        : mFd(::socket(addr.family(), SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (addr.family() == AF_UNIX) {
            ::unlink(addr.getUnixPath().c_str());
            mPath = addr.getUnixPath();
        }
        const int on = 1;
        ::setsockopt(mFd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (::bind(mFd.get(), addr.getSockAddr(), addr.getSockLen()) != 0 ||
            ::listen(mFd.get(), backlog) != 0) {
            mFd.reset();
        } else {
            mAddr = Vantel::Orbel::Socket::getLocalAddr(mFd.get());
        }
    }
    ~PeerListener() {
        if (!mPath.empty()) {
            ::unlink(mPath.c_str());
        }
    }

    bool valid() const { return mFd.valid(); }
    const InetAddress& addr() const { return mAddr; }
    /// Waits up to 30 s; Peer(-1) then.
    Peer accept() {
        pollfd readable{mFd.get(), POLLIN, 0};
        return Peer(::poll(&readable, 1, 30000) > 0
                        ? ::accept4(mFd.get(), nullptr, nullptr, SOCK_CLOEXEC)
                        : -1);
    }

private:
    Vantel::Orbel::UniqueFd mFd;
    InetAddress mAddr;
    std::string mPath;
};

/// An address of the family that nobody listens on.
inline InetAddress deadAddress(Family family) {
    const InetAddress addr = freshAddress(family);
    return family == Family::Unix ? addr : PeerListener(addr).addr();
}

}  // namespace OrbelTest
