#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/fsuid.h>
#include <sys/resource.h>

#include <csignal>
#include <string>

#include "Vantel/Utils/JsonText.h"
#include "tests/file/TempDirectory.h"

namespace OrbelTest {

inline Json::Value json(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(Vantel::Utils::stringToJson(text, value)) << text;
    return value;
}

inline std::string nested(int levels, const std::string& open, const std::string& close) {
    std::string begin;
    std::string end = open == "[" ? "" : "1";
    for (int level = 0; level < levels; ++level) {
        begin += open;
        end += close;
    }
    return begin + end;
}

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
