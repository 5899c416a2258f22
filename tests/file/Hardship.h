#pragma once

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/resource.h>

#include <csignal>

namespace OrbelTest {

/// While it lives, no file of this process grows beyond `bytes`.
class FullDisk {
public:
    explicit FullDisk(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &mBefore);
        const rlimit small{bytes, mBefore.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    }
    ~FullDisk() { setrlimit(RLIMIT_FSIZE, &mBefore); }

private:
    rlimit mBefore{};
};

/// While it lives, this thread may not write what belongs to others, also where the tests run as
/// root: the privilege goes with the identity.
class OrdinaryUser {
public:
    OrdinaryUser() : mBefore(static_cast<uid_t>(setfsuid(65534))) {}
    ~OrdinaryUser() { setfsuid(mBefore); }

private:
    uid_t mBefore;
};

}  // namespace OrbelTest
