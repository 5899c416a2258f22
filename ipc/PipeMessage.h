#pragma once

#include <cstddef>
#include <cstdint>

#include "ipc/LocationWord.h"

namespace Vantel::Orbel {

enum class PipeAction : uint32_t {
    DataReady = 1,   ///< writer to reader: the block holds a sample for you
    DataFinish = 2,  ///< reader to writer: the last reader has left the block
};

/// The control message between nodes, sent as its native bytes over a Unix stream socket; at most
/// one descriptor goes with it as ancillary data. Both ends are x86-64 processes of one machine.
struct PipeMessage {
    /// Descriptor sent along, -1 for none. The number means something in the sender only: the
    /// receiver puts the descriptor that it got in its place.
    int32_t fd = -1;
    /// LocationWord of the block with a PipeAction as its action; a stranger may send any other.
    uint32_t location = 0;
    uint64_t channelId = 0;
    uint64_t writerId = 0;  ///< node id of the block's writer
    uint64_t sequence = 0;  ///< of the block at the time of sending

    LocationWord locationWord() const { return LocationWord::unpack(location); }
    PipeAction action() const { return static_cast<PipeAction>(locationWord().action); }
    uint32_t poolId() const { return locationWord().poolId; }
    uint32_t blockIndex() const { return locationWord().blockIndex; }

    /// A message about the block at `location`, whose action field is replaced.
    static constexpr PipeMessage make(PipeAction action, LocationWord location, uint64_t channelId,
                                      uint64_t writerId, uint64_t sequence, int fd = -1) {
        location.action = static_cast<uint32_t>(action);
        return {fd, location.pack(), channelId, writerId, sequence};
    }
};
static_assert(sizeof(PipeMessage) == 32 && alignof(PipeMessage) == 8);
static_assert(offsetof(PipeMessage, fd) == 0 && offsetof(PipeMessage, location) == 4 &&
              offsetof(PipeMessage, channelId) == 8 && offsetof(PipeMessage, writerId) == 16 &&
              offsetof(PipeMessage, sequence) == 24);

}  // namespace Vantel::Orbel
