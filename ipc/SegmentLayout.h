#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "Vantel/Orbel/SHMMutex.h"
#include "ipc/LocationWord.h"
#include "ipc/ReaderMasks.h"
#include "ipc/SharedField.h"
#include "ipc/StateWord.h"

/// What lies in the shared-memory objects of domains, pools and channels: a persistent format,
/// native x86-64 little-endian, that processes built at different times share byte for byte.
///
/// A segment is initialised under its CProcessMutex, its magic stored last. Magic 0: new, or its
/// maker died before it was done. The right magic: complete. Any other: somebody else's object,
/// which is refused and not overwritten.
///
/// Strangers write here: take counts and offsets from your own validated copy, bound each index.
namespace Vantel::Orbel {

constexpr uint32_t kMaxNodes = 32;
constexpr uint32_t kMaxPools = LocationWord::kMaxPoolId + 1;
constexpr uint32_t kMaxReaders = 8;  // one bit each in a block's masks, one entry in its readerIds
constexpr uint32_t kMaxWriters = 8;
constexpr uint32_t kMaxBlocks = LocationWord::kMaxBlockIndex + 1;
constexpr size_t kNameSize = 64;  // 63 characters are stored

constexpr uint32_t kDomainMagic = 0xDEADBEEF;
constexpr uint32_t kDomainVersion = 1;
constexpr uint32_t kPoolMagic = 0x5000BEF1;
constexpr uint32_t kChannelMagic = 0xCAFEBABE;

/// A name from a table; it need not be terminated there.
inline std::string storedName(const char (&name)[kNameSize]) {
    return std::string(name, strnlen(name, kNameSize - 1));
}

/// Short form of a node id, never 0. With the slot it tells whether the writer of a block is still
/// the node that wrote it.
constexpr uint32_t writerTag(uint64_t nodeId) {
    const uint64_t fold = nodeId ^ (nodeId >> 18) ^ (nodeId >> 36) ^ (nodeId >> 54);
    const auto tag = static_cast<uint32_t>(fold & StateWord::kMaxTag);
    return tag == 0 ? 1 : tag;
}

// ------------------------------------------------------------------------------------- domain

enum class PoolState : uint32_t { Free = 0, InUse = 1 };
enum class NodeState : uint32_t { Claimed = 0, Alive = 1, Closing = 2, Free = 3 };

/// An entry of the pool table. `state` is stored last and read first: release and acquire.
struct PoolInfo {
    char name[kNameSize];  // without the domain's name
    SharedField<uint32_t> poolId;
    SharedField<uint32_t> blockSize;   // payload bytes a block
    SharedField<uint32_t> extraSize;   // extra-data bytes a block
    SharedField<uint32_t> blockCount;  // blocks
    SharedField<PoolState> state;
};
static_assert(sizeof(PoolInfo) == 84 && alignof(PoolInfo) == 4);
static_assert(offsetof(PoolInfo, name) == 0 && offsetof(PoolInfo, poolId) == 64 &&
              offsetof(PoolInfo, blockSize) == 68 && offsetof(PoolInfo, extraSize) == 72 &&
              offsetof(PoolInfo, blockCount) == 76 && offsetof(PoolInfo, state) == 80);

/// An entry of the node table.
struct NodeInfo {
    char name[kNameSize];
    SharedField<int32_t> pid;  // -1 when free
    uint32_t reserved1;
    SharedField<uint64_t> nodeId;         // 0 when free
    SharedField<uint64_t> lastCheckTime;  // microseconds; when the master last found it alive
    SharedField<NodeState> state;
    uint32_t reserved2;
};
static_assert(sizeof(NodeInfo) == 96);
static_assert(offsetof(NodeInfo, name) == 0 && offsetof(NodeInfo, pid) == 64 &&
              offsetof(NodeInfo, nodeId) == 72 && offsetof(NodeInfo, lastCheckTime) == 80 &&
              offsetof(NodeInfo, state) == 88);

struct DomainHeader {
    SharedField<uint32_t> magic;
    uint32_t version;
    SharedField<uint32_t> ready;
    SharedField<uint32_t> nodeCount;
    SharedField<uint32_t> poolCount;  // not 0: pools exist
    SharedField<uint32_t> masterPid;  // changed by compare-and-swap only
    PoolInfo pools[kMaxPools];        // index = pool id
    SHMMutex lock;                    // guards both tables
    uint64_t reserved[2];
    NodeInfo nodes[kMaxNodes];  // index = node slot
};
static_assert(sizeof(DomainHeader) == 5840);
static_assert(offsetof(DomainHeader, magic) == 0 && offsetof(DomainHeader, version) == 4 &&
              offsetof(DomainHeader, ready) == 8 && offsetof(DomainHeader, nodeCount) == 12 &&
              offsetof(DomainHeader, poolCount) == 16 && offsetof(DomainHeader, masterPid) == 20 &&
              offsetof(DomainHeader, pools) == 24 && offsetof(DomainHeader, lock) == 2712 &&
              offsetof(DomainHeader, reserved) == 2752 && offsetof(DomainHeader, nodes) == 2768);

// --------------------------------------------------------------------------------------- pool

/// At the start of a pool's segment; then the block headers, then page aligned the payloads.
/// All but `magic` and `nextIndex` is written once, before the magic.
struct PoolHeader {
    SharedField<uint32_t> magic;
    uint32_t blockSize;
    uint32_t extraSize;
    uint32_t blockCount;
    uint32_t headerStride;
    uint32_t dataOffset;
    SharedField<uint32_t> nextIndex;  // a hint: where the next allocation starts to look
    uint32_t reserved1;
    SHMMutex lock;  // held by a clean-up pass; never by who takes or gives a block
    uint64_t reserved2[4];
};
static_assert(sizeof(PoolHeader) == 104);
static_assert(offsetof(PoolHeader, magic) == 0 && offsetof(PoolHeader, blockSize) == 4 &&
              offsetof(PoolHeader, extraSize) == 8 && offsetof(PoolHeader, blockCount) == 12 &&
              offsetof(PoolHeader, headerStride) == 16 && offsetof(PoolHeader, dataOffset) == 20 &&
              offsetof(PoolHeader, nextIndex) == 24 && offsetof(PoolHeader, lock) == 32 &&
              offsetof(PoolHeader, reserved2) == 72);

/// The part of a block header that readers and writer meet in.
///
/// Who wins the compare-and-swap of `state` owns the rest. The writer fills it while the state is
/// writing; its swap to ready publishes all of it, so readers that saw ready (and its sequence) may
/// read the other fields relaxed. `timestamp` is advisory: readers and clean-up store it too.
struct BlockStatus {
    SharedField<uint64_t> state;      // StateWord
    SharedField<uint64_t> masks;      // ReaderMasks: readMask at 24, claimMask at 28 of the header
    SharedField<uint32_t> writeRef;   // holds on the writer's side
    SharedField<uint32_t> readRef;    // claims on the readers' side
    SharedField<uint64_t> writerId;   // node id of the writer
    SharedField<uint64_t> channelId;  // channel of the present content
    SharedField<uint64_t> timestamp;  // microseconds
    SharedField<uint64_t> readerIds[kMaxReaders];  // node id of reader i; 0 ends the list

    StateWord stateWord() const { return StateWord::unpack(state.load()); }
    ReaderMasks readerMasks() const { return ReaderMasks::unpack(masks.load()); }
    uint32_t readMask() const { return readerMasks().read; }
    uint32_t claimMask() const { return readerMasks().claim; }

    /// Replaces the state word as long as it is `expected`, which otherwise takes what was found.
    bool exchangeState(StateWord& expected, const StateWord& desired) {
        uint64_t found = expected.pack();
        const bool done = state.compareExchange(found, desired.pack());
        if (!done) {
            expected = StateWord::unpack(found);
        }
        return done;
    }

    void storeMasks(const ReaderMasks& to) { masks.store(to.pack()); }
    /// Clears all of claimMask and leaves readMask.
    void clearClaims() { masks.fetchAnd(ReaderMasks{~0u, 0}.pack()); }
    /// Clears the bit of `reader` (0..7) in readMask alone: it could not be told of the block. True
    /// if that left nobody.
    bool dropUntold(uint32_t reader) {
        const uint64_t bit = ReaderMasks{1u << reader, 0}.pack();
        const uint64_t before = masks.fetchAnd(~bit);
        return (before & bit) != 0 && (before & ~bit) == 0;
    }
    /// Clears the bit of `reader` in claimMask alone: a claim that came too late.
    void dropClaim(uint32_t reader) { masks.fetchAnd(~ReaderMasks{0, 1u << reader}.pack()); }
    /// Clears the bits of `reader` in both masks by one atomic AND. True for exactly one caller in
    /// an incarnation, however many leave at once: the one that had a bit there and left no other.
    bool leaveReader(uint32_t reader) {
        const uint64_t bits = ReaderMasks::both(reader).pack();
        const uint64_t before = masks.fetchAnd(~bits);
        return (before & bits) != 0 && (before & ~bits) == 0;
    }

    /// Takes the claim of reader `readerIndex` on the incarnation `sequence` of a ready block that
    /// `writer` wrote, and raises readRef. False, with nothing changed, if it cannot be had: the
    /// index is above 7, the block has moved on, the reader is not waited for or holds it already.
    /// Defined in ipc/BlockStatus.cpp.
    bool tryClaimReader(unsigned int readerIndex, unsigned long writer, unsigned long sequence);
};
static_assert(sizeof(BlockStatus) == 112);
static_assert(offsetof(BlockStatus, state) == 0 && offsetof(BlockStatus, masks) == 8 &&
              offsetof(BlockStatus, writeRef) == 16 && offsetof(BlockStatus, readRef) == 20 &&
              offsetof(BlockStatus, writerId) == 24 && offsetof(BlockStatus, channelId) == 32 &&
              offsetof(BlockStatus, timestamp) == 40 && offsetof(BlockStatus, readerIds) == 48);

/// 128 bytes before each block's extra-data area. Need not stand at a multiple of 8.
struct BlockHeader {
    SharedField<uint32_t> location;       // LocationWord with action 0; set once
    SharedField<uint32_t> size;           // payload bytes in use
    SharedField<uint32_t> extraDataSize;  // extra-data bytes in use
    uint32_t reserved;
    BlockStatus status;

    LocationWord locationWord() const {
        return LocationWord::unpack(location.load(std::memory_order_relaxed));
    }
    unsigned char* extraData() { return reinterpret_cast<unsigned char*>(this) + sizeof *this; }
};
static_assert(sizeof(BlockHeader) == 128);
static_assert(offsetof(BlockHeader, location) == 0 && offsetof(BlockHeader, size) == 4 &&
              offsetof(BlockHeader, extraDataSize) == 8 && offsetof(BlockHeader, status) == 16);

/// Sizes of a pool and where its parts lie, in 64 bits: whether it can be made is for valid().
struct PoolGeometry {
    uint32_t blockSize = 0;
    uint32_t extraSize = 0;
    uint32_t blockCount = 0;

    constexpr uint64_t headerStride() const { return uint64_t{extraSize} + sizeof(BlockHeader); }
    constexpr uint64_t headerOffset(uint32_t index) const {
        return sizeof(PoolHeader) + index * headerStride();
    }
    /// The end of the block headers, rounded up to a page.
    constexpr uint64_t dataOffset() const {
        return (headerOffset(blockCount) + 4095) & ~uint64_t{4095};
    }
    constexpr uint64_t dataOffset(uint32_t index) const {
        return dataOffset() + uint64_t{index} * blockSize;
    }
    constexpr uint64_t segmentSize() const { return dataOffset(blockCount); }

    /// False if a block's index does not fit its location or the segment's size its 32 bits.
    constexpr bool valid() const {
        return blockCount <= kMaxBlocks && headerOffset(blockCount) <= UINT32_MAX &&
               segmentSize() <= UINT32_MAX;
    }
};

// ------------------------------------------------------------------------------------ channel

constexpr uint32_t kChannelSegmentSize = 4096;

/// The used part of a channel's status segment.
struct ChannelStatus {
    SharedField<uint32_t> magic;
    uint32_t reserved;
    SharedField<uint64_t> writerIds[kMaxWriters];  // node ids, 0 for a free entry
    SharedField<uint64_t> readerIds[kMaxReaders];
    SHMMutex lock;  // guards both tables; a commit reads the readers without it
};
static_assert(sizeof(ChannelStatus) == 176 && sizeof(ChannelStatus) <= kChannelSegmentSize);
static_assert(offsetof(ChannelStatus, magic) == 0 && offsetof(ChannelStatus, writerIds) == 8 &&
              offsetof(ChannelStatus, readerIds) == 72 && offsetof(ChannelStatus, lock) == 136);

}  // namespace Vantel::Orbel
