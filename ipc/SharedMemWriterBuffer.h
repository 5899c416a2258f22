#pragma once

#include <memory>

#include "ipc/SegmentLayout.h"
#include "ipc/SharedMemBaseBuffer.h"

namespace Vantel::Orbel {

class SharedMemWriteChannelImpl;

/// A handle on a block in its writer's hands: one of the holds that `writeRef` counts.
class SharedMemWriterBuffer final : public SharedMemBaseBuffer {
public:
    /// Without `held` adds 1 to `writeRef`; with it, the caller has done so.
    SharedMemWriterBuffer(unsigned long channelId, BlockHeader* header, void* data, bool held);
    /// Lets go of its hold. The last one gives the block back through the channel.
    ~SharedMemWriterBuffer() override;

    bool resize(unsigned int sizeBytes) override;
    bool resizeExtraData(unsigned int sizeBytes) override;
    unsigned int incReference() override;
    unsigned int decReference() override;

    /// The block's sequence as this handle knows it: from its making, or its last commit.
    unsigned long sequence() const { return mOwned.sequence; }
    void setSequence(unsigned long sequence) { mOwned.sequence = sequence; }

    /// Whether `word`, found in the block, says that the block still is its writer's: the master
    /// may have taken it away and another may have it.
    bool owns(const StateWord& word) const {
        return word.state != BlockState::Free && word.writerSlot == mOwned.writerSlot &&
               word.writerTag == mOwned.writerTag;
    }

    /// Whom to give the block back to. Without a living channel it stays as it is.
    void setFinish(std::weak_ptr<SharedMemWriteChannelImpl> channel);

private:
    StateWord mOwned;
    std::weak_ptr<SharedMemWriteChannelImpl> mChannel;
};

}  // namespace Vantel::Orbel
