#pragma once

#include <cstdint>

namespace Vantel::Orbel {

enum class BlockState : uint32_t { Free = 0, Writing = 1, Ready = 2 };

/// The state word of a block, as one value: bits 0-3 state, 4-9 writer slot, 10-27 writer tag,
/// 28-63 sequence. A single 64-bit compare-and-swap changes all four together.
struct StateWord {
    static constexpr uint64_t kMaxSequence = (uint64_t{1} << 36) - 1;
    static constexpr uint32_t kMaxTag = (1u << 18) - 1;
    static constexpr uint32_t kMaxSlot = 63;

    /// A word found in a segment may hold a state that is none of the three: it compares unequal
    /// to all of them.
    BlockState state = BlockState::Free;
    uint32_t writerSlot = 0;
    uint32_t writerTag = 0;
    uint64_t sequence = 0;

    /// What does not fit its field is cut to it.
    constexpr uint64_t pack() const {
        return (static_cast<uint64_t>(state) & 15) |
               static_cast<uint64_t>(writerSlot & kMaxSlot) << 4 |
               static_cast<uint64_t>(writerTag & kMaxTag) << 10 | sequence << 28;
    }

    static constexpr StateWord unpack(uint64_t word) {
        return {static_cast<BlockState>(word & 15), static_cast<uint32_t>(word >> 4) & kMaxSlot,
                static_cast<uint32_t>(word >> 10) & kMaxTag, word >> 28};
    }

    constexpr bool is(BlockState wanted, uint64_t ofSequence) const {
        return state == wanted && sequence == ofSequence;
    }

    /// The word after the next change of state: one sequence on, same slot and tag.
    constexpr StateWord next(BlockState to) const {
        return {to, writerSlot, writerTag, (sequence + 1) & kMaxSequence};
    }
    constexpr StateWord nextFree() const { return {BlockState::Free, 0, 0, next(state).sequence}; }
    constexpr StateWord nextWriting(uint32_t slot, uint32_t tag) const {
        return {BlockState::Writing, slot, tag, next(state).sequence};
    }
};

}  // namespace Vantel::Orbel
