#pragma once

#include <cstdint>

namespace Vantel::Orbel {

/// The two neighbouring masks of a block as one word, so that a step over both is one atomic
/// operation: bit i of `read`: reader i has yet to finish; bit i of `claim`: it holds the block.
struct ReaderMasks {
    uint32_t read = 0;
    uint32_t claim = 0;

    constexpr uint64_t pack() const { return static_cast<uint64_t>(claim) << 32 | read; }
    static constexpr ReaderMasks unpack(uint64_t word) {
        return {static_cast<uint32_t>(word), static_cast<uint32_t>(word >> 32)};
    }

    /// Bit `reader` (0..31) in both masks.
    static constexpr ReaderMasks both(uint32_t reader) { return {1u << reader, 1u << reader}; }

    constexpr bool empty() const { return read == 0 && claim == 0; }
};

}  // namespace Vantel::Orbel
