#pragma once

#include <cstdint>

namespace Vantel::Orbel {

/// Where a block is: bits 4-8 pool id, 9-31 block index. In a block header bits 0-3 are zero; in a
/// control message they hold the action.
struct LocationWord {
    static constexpr uint32_t kMaxPoolId = 31;
    static constexpr uint32_t kMaxBlockIndex = (1u << 23) - 1;

    uint32_t action = 0;
    uint32_t poolId = 0;
    uint32_t blockIndex = 0;

    /// What does not fit its field is cut to it.
    constexpr uint32_t pack() const {
        return (action & 15) | (poolId & kMaxPoolId) << 4 | blockIndex << 9;
    }

    static constexpr LocationWord unpack(uint32_t word) {
        return {word & 15, (word >> 4) & kMaxPoolId, word >> 9};
    }
};

}  // namespace Vantel::Orbel
