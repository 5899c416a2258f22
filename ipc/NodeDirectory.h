#pragma once

#include "ipc/SegmentLayout.h"

namespace Vantel::Orbel {

/// What pools and channel tables ask about the nodes of their domain. Any thread.
class NodeDirectory {
public:
    virtual ~NodeDirectory() = default;

    /// A node with this id stands in the table and is alive.
    virtual bool checkNodeAlive(unsigned long nodeId) = 0;
    /// The node in `slot` is alive and still the one that `tag` was made of.
    virtual bool checkNodeAlive(unsigned int slot, unsigned int tag) = 0;
    /// Tells the writer that the readers of incarnation `sequence` are done. True as well if the
    /// block has moved on; false if the writer cannot be told.
    virtual bool notifyWriter(unsigned long writerId, unsigned long channelId,
                              unsigned long sequence, BlockHeader* block) = 0;
};

}  // namespace Vantel::Orbel
