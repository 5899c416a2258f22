#pragma once

#include <unistd.h>

#include <atomic>
#include <string>

namespace OrbelTest {

/// A name that no other test process and no other call in this one uses: "<base>_<pid>_<count>".
inline std::string uniqueName(const std::string& base) {
    static std::atomic<int> count{0};
    return base + "_" + std::to_string(getpid()) + "_" + std::to_string(count++);
}

}  // namespace OrbelTest
