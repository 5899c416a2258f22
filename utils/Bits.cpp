#include "Vantel/Utils/Bits.h"

#include <bit>

namespace Vantel::Utils {

uint32_t log2Int(uint32_t v) {
    return static_cast<uint32_t>(std::bit_width(v | 1) - 1);
}

uint16_t swapUint16(uint16_t v) {
    return __builtin_bswap16(v);
}

uint32_t swapUint32(uint32_t v) {
    return __builtin_bswap32(v);
}

uint64_t swapUint64(uint64_t v) {
    return __builtin_bswap64(v);
}

}  // namespace Vantel::Utils
