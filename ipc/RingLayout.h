#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "ipc/SharedField.h"

/// What lies in the segment of a ring: a persistent format, native x86-64 little-endian, that
/// processes built at different times share byte for byte.
///
/// `version` is stored last at initialisation: any other value means that the maker died before it
/// was done. Strangers write here: `nodeSize` and `nodeCount` are checked against the mapping once
/// and then taken from that private copy, a record's `size` is checked on every use.
namespace Vantel::Memory {

using Orbel::SharedField;

constexpr uint32_t kRingVersion = 0x20000;
constexpr uint32_t kRingReaders = 16;

/// The word of a node, which is its sequence lock: bits 12-59 position, 60-63 state, 0-11 zero.
struct RingWord {
    enum class State : uint32_t { Initial = 0, Writing = 1, Ready = 2 };
    static constexpr uint64_t kPositionMask = (uint64_t{1} << 48) - 1;

    /// One found in a segment may hold a state that is none of the three.
    State state = State::Initial;
    uint64_t position = 0;  // its lower 48 bits

    constexpr uint64_t pack() const {
        return (position & kPositionMask) << 12 | static_cast<uint64_t>(state) << 60;
    }
    static constexpr RingWord unpack(uint64_t word) {
        return {static_cast<State>(word >> 60), word >> 12 & kPositionMask};
    }

    /// How far the word is ahead of `from`, a position of 64 bits; negative behind it. Right beyond
    /// 2^48 records too, as long as the two are less than half of that apart.
    constexpr int64_t aheadOf(uint64_t from) const {
        return static_cast<int64_t>((position - from) << 16) >> 16;
    }
};

struct ShmReaderSlot {
    SharedField<uint32_t> pid;  // 0 when free; taken and given by compare-and-swap
    uint32_t reserved1;
    SharedField<uint64_t> head;          // next position this reader will read
    SharedField<uint32_t> eventEnabled;  // the first byte counts: the reader wants signals
    SharedField<uint32_t> signalling;    // a writer is writing to the FIFO, or died doing so
    SharedField<uint32_t> skippedSignals;
    uint32_t reserved2;
    SharedField<uint64_t> lastActive;  // milliseconds, unlike all other times in segments
    uint64_t reserved3[3];
};
static_assert(sizeof(ShmReaderSlot) == 64);
static_assert(offsetof(ShmReaderSlot, pid) == 0 && offsetof(ShmReaderSlot, head) == 8 &&
              offsetof(ShmReaderSlot, eventEnabled) == 16 &&
              offsetof(ShmReaderSlot, signalling) == 20 &&
              offsetof(ShmReaderSlot, skippedSignals) == 24 &&
              offsetof(ShmReaderSlot, lastActive) == 32);

/// Position p lies in node p % nodeCount. The payload follows at offset 28, inside the last word of
/// this struct, so never use its size.
struct ShmNode {
    SharedField<uint64_t> word;  // RingWord
    SharedField<uint32_t> writerPid;
    uint32_t reserved;
    SharedField<uint64_t> timestamp;  // microseconds
    SharedField<uint32_t> size;       // bytes of payload

    static constexpr size_t kPayloadOffset = 28;
    void* payload() { return reinterpret_cast<std::byte*>(this) + kPayloadOffset; }
};
static_assert(offsetof(ShmNode, word) == 0 && offsetof(ShmNode, writerPid) == 8 &&
              offsetof(ShmNode, timestamp) == 16 && offsetof(ShmNode, size) == 24);

struct ShmBufferHeader {
    SharedField<uint32_t> version;
    SharedField<uint32_t> nodeSize;  // payload capacity of a node, a multiple of 8
    SharedField<uint32_t> nodeCount;
    uint32_t reserved1[13];
    SharedField<uint64_t> tail;  // position of the next record to be written; never wraps
    uint64_t reserved2[7];
    SharedField<uint32_t> valid;  // 0 tells readers to let go of this mapping
    uint32_t reserved3[15];
    SharedField<int32_t> sigThreshold;  // backlog at which a reader is signalled
    SharedField<uint32_t> sigSlots;     // stored only
    pthread_mutex_t mutexes[2];         // part of the format; initialised, never locked
    uint64_t reserved4[5];
    ShmReaderSlot readers[kRingReaders];
};
static_assert(sizeof(ShmBufferHeader) == 1344);
static_assert(offsetof(ShmBufferHeader, version) == 0 && offsetof(ShmBufferHeader, nodeSize) == 4 &&
              offsetof(ShmBufferHeader, nodeCount) == 8 && offsetof(ShmBufferHeader, tail) == 64 &&
              offsetof(ShmBufferHeader, valid) == 128 &&
              offsetof(ShmBufferHeader, sigThreshold) == 192 &&
              offsetof(ShmBufferHeader, sigSlots) == 196 &&
              offsetof(ShmBufferHeader, mutexes) == 200 &&
              offsetof(ShmBufferHeader, readers) == 320);

/// The sizes of a ring, in 64 bits, so that nothing wraps before it is compared.
struct RingSize {
    static constexpr uint64_t kLargest = 0xFFFFF000;  // bytes of a segment

    uint64_t nodeSize = 0;
    uint64_t nodeCount = 0;

    static constexpr RingSize of(uint32_t dataSize, uint32_t nodeCount) {
        return {(uint64_t{dataSize} + 7) & ~uint64_t{7}, nodeCount};
    }

    constexpr uint64_t stride() const { return nodeSize + 32; }
    constexpr uint64_t usedBytes() const { return sizeof(ShmBufferHeader) + stride() * nodeCount; }
    constexpr uint64_t totalBytes() const { return (usedBytes() + 4095) & ~uint64_t{4095}; }
    /// True if this, asked for or found in a segment, makes a ring and lies within `bytes`.
    constexpr bool fitsInto(uint64_t bytes) const {
        return nodeSize >= 8 && nodeSize % 8 == 0 && nodeCount >= 2 &&
               bytes >= sizeof(ShmBufferHeader) &&
               nodeCount <=
                   (bytes - sizeof(ShmBufferHeader)) / stride();  // no product: it may wrap
    }
};

}  // namespace Vantel::Memory
