#pragma once

#include <cstdint>
#include <functional>

#include "ipc/SegmentLayout.h"

namespace Vantel::Orbel {

class NodeDirectory;

/// True if `timestamp` lies more than `limitUs` before `now`; a time in the future never does.
constexpr bool olderThan(uint64_t limitUs, uint64_t timestamp, uint64_t now) {
    return timestamp < now && now - timestamp > limitUs;
}

/// Takes off a ready block, incarnation `sequence`, the readers that are dead and, once `timedOut`,
/// those that never claimed it; `onDead` hears of the dead ones. readRef stays: what a dead reader
/// added is gone with the next allocation. Without a domain everybody counts as dead. True if a
/// removal left nobody.
bool removeLostReaders(BlockStatus& status, uint64_t sequence, NodeDirectory* domain, bool timedOut,
                       const std::function<void(uint64_t readerId)>& onDead = {});

}  // namespace Vantel::Orbel
