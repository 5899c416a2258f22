#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "frame/base/Assert.h"

namespace Vantel::Memory {

constexpr size_t kPageShift = 12;
constexpr size_t kPageSize = size_t{1} << kPageShift;

/// The arithmetic of the size classes. Sizes are in bytes and at least 1.
///
///     up to 128      multiples of 8       classes 0 to 15
///     up to 1024     multiples of 16      classes 16 to 71, the last that threads cache
///     up to 8192     multiples of 128     classes 72 to 127
///     up to 65536    multiples of 1024    classes 128 to 183
///     above          whole pages          no class
class SizeClass {
public:
    static constexpr size_t kFreeLists = 184;
    static constexpr size_t kThreadLists = 72;
    static constexpr size_t kMaxThreadSize = 1024;
    static constexpr size_t kMaxSize = 65536;
    static constexpr size_t kMaxMove = 256;

    /// The class of a size up to kMaxSize; the program ends (assertion) above.
    static size_t index(size_t size) {
        const size_t index = rawIndex(size);
        ORBEL_ASSERT(index < kFreeLists);
        return index;
    }

    /// The same + 1 for 0 (counts as 1) to kMaxThreadSize, by a table.
    static size_t threadTag(size_t size);

    /// Size of the objects of a class; 0 for an index outside the table.
    static constexpr size_t size(size_t index) {
        if (index < 16) {
            return (index + 1) * 8;
        }
        if (index < 72) {
            return 16 * index - 112;
        }
        if (index < 128) {
            return 128 * index - 8064;
        }
        return index < kFreeLists ? 1024 * index - 121856 : 0;
    }

    /// How many objects of `size` move between a thread and the central cache at a time.
    static constexpr size_t numMoveSize(size_t size) {
        return size == 0 ? 0 : std::clamp<size_t>(kMaxSize / size, 2, kMaxMove);
    }

    /// Pages of a span of objects of `size`.
    static constexpr size_t spanPages(size_t size) {
        return std::max<size_t>((size * numMoveSize(size) + kPageSize - 1) >> kPageShift, 1);
    }

    /// The smallest size of a class.
    static constexpr size_t smallest(size_t index) { return index == 0 ? 1 : size(index - 1) + 1; }

    /// As index(), unchecked.
    static constexpr size_t rawIndex(size_t size) {
        if (size <= 128) {
            return ((size + 7) >> 3) - 1;
        }
        if (size <= 1024) {
            return ((size - 113) >> 4) + 15;
        }
        if (size <= 8192) {
            return ((size - 897) >> 7) + 71;
        }
        return ((size - 7169) >> 10) + 127;
    }
};

/// Class + 1 by size: mixed sizes would mispredict the branches of rawIndex().
inline constexpr auto kThreadTag = [] {
    std::array<uint8_t, SizeClass::kMaxThreadSize + 1> table{1};  // 0 counts as 1
    for (size_t size = 1; size < table.size(); ++size) {
        table[size] = static_cast<uint8_t>(SizeClass::rawIndex(size) + 1);
    }
    return table;
}();

inline size_t SizeClass::threadTag(size_t size) {
    return kThreadTag[size];
}

}  // namespace Vantel::Memory
