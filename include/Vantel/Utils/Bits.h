#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Utils {

/// Floor of the logarithm to base 2; 0 for 0.
ORBEL_API uint32_t log2Int(uint32_t v);

///@{
/// The bytes in opposite order.
ORBEL_API uint16_t swapUint16(uint16_t v);
ORBEL_API uint32_t swapUint32(uint32_t v);
ORBEL_API uint64_t swapUint64(uint64_t v);
///@}

}  // namespace Vantel::Utils
