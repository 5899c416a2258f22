#pragma once

#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstring>

namespace OrbelTest {

/// Moves the calling thread, and the threads and processes that it starts, to an IPC namespace of
/// their own: System V segments of fixed keys neither meet those of another test nor of a live
/// system, and go with the last process. False, with errno, where that is not permitted.
inline bool enterPrivateIpc() {
    return unshare(CLONE_NEWIPC) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0;
}

/// Each test in a namespace of its own, or skipped.
class PrivateIpcTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!enterPrivateIpc()) {
            GTEST_SKIP() << "no private IPC namespace: " << std::strerror(errno);
        }
    }
};

}  // namespace OrbelTest
