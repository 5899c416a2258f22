#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

/// One input. Defined by each target, called by the fuzzer or by replay.cpp. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace Fuzz {

/// Something that must hold for every input.
inline void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

/// The first `count` - 1 texts that end in a zero byte, then all the rest as the last one.
inline std::vector<std::string> split(const uint8_t* data, size_t size, size_t count) {
    const std::string whole(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> parts;
    size_t begin = 0;
    while (parts.size() + 1 < count && begin < size) {
        const size_t end = whole.find('\0', begin);
        if (end == std::string::npos) {
            break;
        }
        parts.push_back(whole.substr(begin, end - begin));
        begin = end + 1;
    }
    parts.push_back(whole.substr(begin));
    return parts;
}

}  // namespace Fuzz
