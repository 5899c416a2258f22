#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

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

}  // namespace Vantel::Memory
