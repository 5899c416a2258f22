#pragma once

#include <cstddef>
#include <cstdint>

namespace Vantel::Memory {

/// How a block of the shared pool is named to another process. Binary, little-endian as stored;
/// travels in an area of at least this size, the rest of which is zero.
struct BlockDescription {
    uint32_t magic;     // kBlockDescriptionMagic
    uint32_t type;      // of the pool, as the sender knows it
    uint32_t dataSize;  // of the pool, likewise; 0 from the process that created it
    uint32_t offset;    // of the block in the data segment
    uint32_t size;      // of the block, as granted
};

inline constexpr uint32_t kBlockDescriptionMagic = 0x424D4E56;  // "VNMB"

static_assert(sizeof(BlockDescription) == 20);
static_assert(offsetof(BlockDescription, magic) == 0 && offsetof(BlockDescription, type) == 4 &&
              offsetof(BlockDescription, dataSize) == 8 &&
              offsetof(BlockDescription, offset) == 12 && offsetof(BlockDescription, size) == 16);

}  // namespace Vantel::Memory
