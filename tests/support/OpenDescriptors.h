#pragma once

#include <filesystem>
#include <iterator>

namespace OrbelTest {

/// How many descriptors this process has open; compare two calls.
inline long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

}  // namespace OrbelTest
