#pragma once

#include <cstddef>
#include <cstdint>

#include "ipc/SharedField.h"

/// What lies in the segment of a triple buffer: a persistent format, native x86-64 little-endian,
/// that processes built at different times share byte for byte.
///
/// `valid` is stored last at initialisation. Strangers write here: `slotSize` is checked against
/// the mapping once and then taken from that private copy, slot numbers and the `size` of a sample
/// are checked on every use.
namespace Vantel::Memory {

using Orbel::SharedField;

constexpr uint32_t kTripleVersion = 0x10002;
constexpr uint32_t kTripleSlots = 3;

/// The state word: bits 0-1 front slot, 2-3 write slot, 4-63 sequence. One 64-bit store publishes.
struct TripleState {
    uint32_t front = 0;
    uint32_t write = 1;
    uint64_t sequence = 0;  // 0: nothing has been published

    constexpr uint64_t pack() const { return sequence << 4 | (write & 3) << 2 | (front & 3); }
    static constexpr TripleState unpack(uint64_t word) {
        return {static_cast<uint32_t>(word) & 3, static_cast<uint32_t>(word >> 2) & 3, word >> 4};
    }

    /// A word found in a segment may name a slot that isn't there, or one slot twice.
    constexpr bool consistent() const {
        return front < kTripleSlots && write < kTripleSlots && front != write;
    }
    /// After the write slot was filled: it is in front, and the next goes to the one slot that
    /// neither is nor was. So whoever still copies the old front has a period to do it in.
    constexpr TripleState next() const { return {write, (3 - front - write) & 3, sequence + 1}; }
};
static_assert(TripleState{}.pack() == 4);

struct ShmTripleSlot {
    SharedField<uint64_t> seqBegin;  // stored before the content
    SharedField<uint64_t> seqEnd;    // stored after it
    SharedField<uint32_t> size;      // bytes of payload, which follows
    uint32_t reserved;

    void* payload() { return this + 1; }
};
static_assert(sizeof(ShmTripleSlot) == 24);
static_assert(offsetof(ShmTripleSlot, seqBegin) == 0 && offsetof(ShmTripleSlot, seqEnd) == 8 &&
              offsetof(ShmTripleSlot, size) == 16);

struct ShmTripleHeader {
    SharedField<uint32_t> version;
    SharedField<uint32_t> slotSize;  // payload bytes of a slot, a multiple of 8
    SharedField<uint32_t> valid;     // 0 tells readers to attach anew
    uint32_t reserved;
    SharedField<uint64_t> state;  // TripleState
    // then the slots, each slotSize + 24 bytes
};
static_assert(sizeof(ShmTripleHeader) == 24);
static_assert(offsetof(ShmTripleHeader, version) == 0 && offsetof(ShmTripleHeader, slotSize) == 4 &&
              offsetof(ShmTripleHeader, valid) == 8 && offsetof(ShmTripleHeader, state) == 16);

/// In 64 bits, so that nothing wraps before it is compared.
constexpr uint64_t tripleSlotSize(uint32_t dataSize) {
    return (uint64_t{dataSize} + 7) & ~uint64_t{7};
}
constexpr uint64_t tripleTotalBytes(uint64_t slotSize) {
    return (slotSize * kTripleSlots + sizeof(ShmTripleHeader) +
            kTripleSlots * sizeof(ShmTripleSlot) + 4095) &
           ~uint64_t{4095};
}
constexpr uint64_t kTripleLargest = 0xFFFFF000;  // bytes of a segment

}  // namespace Vantel::Memory
