#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace Vantel::Orbel {

namespace detail {

inline uint64_t shiftMix(uint64_t value) {
    return value ^ (value >> 47);
}

}  // namespace detail

/// The 64-bit MurmurHash2 variant that libstdc++ uses for std::hash<std::string>, with its seed.
/// Names become System V keys and channel ids by it, in separately built processes that must
/// agree; std::hash promises nothing, and other standard libraries give other values.
inline uint64_t stringHash(std::string_view text) {
    constexpr uint64_t kMultiplier = 0xc6a4a7935bd1e995;
    constexpr uint64_t kSeed = 0xc70f6907;
    const char* at = text.data();
    const size_t tail = text.size() % sizeof(uint64_t);
    uint64_t hash = kSeed ^ (text.size() * kMultiplier);
    for (const char* end = at + (text.size() - tail); at != end; at += sizeof(uint64_t)) {
        uint64_t word;
        std::memcpy(&word, at, sizeof word);
        hash = (hash ^ (detail::shiftMix(word * kMultiplier) * kMultiplier)) * kMultiplier;
    }
    if (tail != 0) {
        uint64_t word = 0;
        std::memcpy(&word, at, tail);  // little-endian: the last bytes stand lowest
        hash = (hash ^ word) * kMultiplier;
    }
    hash = detail::shiftMix(hash) * kMultiplier;
    return detail::shiftMix(hash);
}

}  // namespace Vantel::Orbel
