#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "memory/BuddyPages.h"
#include "memory/share/Buddy.h"

namespace Vantel::Memory {

/// Sets a zone up that is not ready; see createBuddy(). -1 with an error line if it is too small.
int32_t intraInitBuddy(BuddyConfig config, ZoneHead* head);

/// 1: an allocated block begins at `offset`, 0: a free one, -1: anything else. An error line for
/// -1, unless `offset` is all ones.
int32_t intraBuddyCheck(const BuddyPrivateData* priv, size_t offset);

inline ListArea privateArea(const BuddyPrivateData& priv) {
    return {reinterpret_cast<uint8_t*>(priv.info), priv.infoBytes};
}

/// The state of a page; relaxed, since some callers have no lock.
inline int32_t pageState(const BuddyPrivateData& priv, size_t page) {
    return std::atomic_ref(priv.nodes[page].order).load(std::memory_order_relaxed);
}

/// The order of the allocated block that `page`, any number, heads; -1 if it heads none, or one
/// that would lead out of the pages.
inline int32_t allocatedOrderAt(const BuddyPrivateData& priv, uint64_t page) {
    const int32_t state = page < priv.pageCount ? pageState(priv, page) : kInsideBlock;
    const uint32_t order = allocatedOrder(state);
    const bool fits = state < 0 && order < priv.config.orderNum &&
                      page + (uint64_t{1} << order) <= priv.pageCount;
    return fits ? static_cast<int32_t>(order) : -1;
}

}  // namespace Vantel::Memory
