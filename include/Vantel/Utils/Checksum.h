#pragma once

#include <cstddef>
#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Utils {

/// CRC-16/ARC (polynomial 0x8005, reflected 0xA001), begun or continued from `crc`; start with 0.
/// A `size` of 0 returns `crc`.
ORBEL_API uint16_t crc16(uint16_t crc, const uint8_t* data, size_t size);

/// CRC-32 of IEEE 802.3 (polynomial 0x04C11DB7, reflected 0xEDB88320). A `size` of 0 returns 0.
ORBEL_API uint32_t crc32(const uint8_t* data, size_t size);

/// Continues an earlier crc32() over the bytes that follow. A `size` of 0 returns `crc`.
ORBEL_API uint32_t crc32(uint32_t crc, const uint8_t* data, size_t size);

}  // namespace Vantel::Utils
