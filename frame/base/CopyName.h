#pragma once

#include <cstddef>
#include <cstring>

namespace Vantel::Orbel {

/// Copies at most N - 1 characters of `from` (null counts as empty) and fills the rest with zeros.
template <size_t N>
void copyName(char (&to)[N], const char* from) {
    const size_t length = from == nullptr ? 0 : strnlen(from, N - 1);
    if (length > 0) {
        std::memcpy(to, from, length);
    }
    std::memset(to + length, 0, N - length);
}

}  // namespace Vantel::Orbel
