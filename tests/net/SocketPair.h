#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <utility>

#include "Vantel/Orbel/UnixStreamSocket.h"

namespace OrbelTest {

/// Two connected Unix stream sockets that do not block.
struct SocketPair {
    SocketPair() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
        near = Vantel::Orbel::UnixStreamSocket(fds[0]);
        far = Vantel::Orbel::UnixStreamSocket(fds[1]);
    }
    /// `near`, for who owns his socket.
    std::unique_ptr<Vantel::Orbel::UnixStreamSocket> takeNear() {
        return std::make_unique<Vantel::Orbel::UnixStreamSocket>(std::move(near));
    }

    Vantel::Orbel::UnixStreamSocket near{-1};
    Vantel::Orbel::UnixStreamSocket far{-1};
};

}  // namespace OrbelTest
