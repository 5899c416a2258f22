#pragma once

#include <cstddef>
#include <cstdint>

namespace Vantel::Memory {

/// What is sent in place of a shared packet. Binary, little-endian as stored:
///
///     0   ShareDescription
///     80  the packet's extra data, `extraSize` bytes
///     80 + extraSize   kShareTailMagic, 4 bytes
struct ShareDescription {
    uint32_t magic;       // kShareHeadMagic
    uint32_t tailOffset;  // 80 + extraSize
    uint32_t packetSize;  // bytes of the packet in use
    uint32_t extraSize;
    uint8_t block[64];  // a BlockDescription, the rest zero
};

inline constexpr uint32_t kShareHeadMagic = 0x44485053;  // the bytes "SPHD"
inline constexpr uint32_t kShareTailMagic = 0x4C545053;  // the bytes "SPTL"

static_assert(sizeof(ShareDescription) == 80);
static_assert(offsetof(ShareDescription, magic) == 0 &&
              offsetof(ShareDescription, tailOffset) == 4 &&
              offsetof(ShareDescription, packetSize) == 8 &&
              offsetof(ShareDescription, extraSize) == 12 &&
              offsetof(ShareDescription, block) == 16);

/// Bytes of a description without extra data.
inline constexpr size_t kShareDescriptionBytes = sizeof(ShareDescription) + sizeof kShareTailMagic;

/// Reads the description in the `len` bytes at `bytes`, which may come from anywhere, into `head`:
/// one whose words agree with each other and with `len`. False, with an error line, otherwise.
/// Whether its block is there is another question.
bool readShareDescription(const void* bytes, int len, ShareDescription& head);

}  // namespace Vantel::Memory
