#pragma once

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "Vantel/Log/LogPacket.h"
#include "frame/base/UniqueFd.h"
#include "tests/support/TestName.h"

namespace OrbelTest {

/// The other end of a log client, in the test's own hands: it reads, and breaks off, when told.
class RawLogServer {
public:
    RawLogServer() : mPath("/tmp/" + uniqueName("orbelLog") + ".sock") { listen(); }
    RawLogServer(const RawLogServer&) = delete;
    RawLogServer& operator=(const RawLogServer&) = delete;
    ~RawLogServer() { die(); }

    const std::string& path() const { return mPath; }

    void listen() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        mPath.copy(address.sun_path, sizeof address.sun_path - 1);
        mListener.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        bind(mListener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ::listen(mListener.get(), 8);
    }

    /// As the end of the server's process: listener and connection are gone.
    void die() {
        mListener.reset();
        mPeer.reset();
        unlink(mPath.c_str());
    }

    bool accept() {
        if (!readable(mListener.get())) {
            return false;
        }
        mPeer.reset(accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        return mPeer.valid();
    }

    /// Exactly `size` bytes, fewer at the end of the stream or after 20 silent seconds.
    std::string read(size_t size) {
        std::string bytes(size, '\0');
        size_t got = 0;
        while (got < size && readable(mPeer.get())) {
            const ssize_t count = ::read(mPeer.get(), bytes.data() + got, size - got);
            if (count <= 0) {
                break;
            }
            got += static_cast<size_t>(count);
        }
        bytes.resize(got);
        return bytes;
    }

    /// The next packet: its header, and its payload in `payload`.
    Vantel::Log::LogPacketHeader readPacket(std::string& payload) {
        Vantel::Log::LogPacketHeader header = {};
        header.cmd = ~0U;  // no packet
        const std::string head = read(sizeof header);
        if (head.size() == sizeof header) {
            memcpy(&header, head.data(), sizeof header);
            payload = read(static_cast<size_t>(header.size));
        }
        return header;
    }

    /// Takes the next client, which has no subscriptions; true if there is one.
    bool acceptAndRegister() { return accept() && read(192).size() == 192; }

    void send(const std::string& bytes) {
        [[maybe_unused]] const ssize_t count =
            ::send(mPeer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

    /// True when the client has read all that was sent.
    bool sentAllIsRead() const {
        int waiting = -1;
        return ioctl(mPeer.get(), SIOCOUTQ, &waiting) == 0 && waiting == 0;
    }

    bool silentFor(int timeoutMs) const { return !readable(mPeer.get(), timeoutMs); }

private:
    static bool readable(int fd, int timeoutMs = 20000) {
        pollfd waited{fd, POLLIN, 0};
        return poll(&waited, 1, timeoutMs) > 0;
    }

    std::string mPath;
    Vantel::Orbel::UniqueFd mListener;
    Vantel::Orbel::UniqueFd mPeer;
};

}  // namespace OrbelTest
