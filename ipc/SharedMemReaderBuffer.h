#pragma once

#include <memory>

#include "ipc/SharedMemBaseBuffer.h"

namespace Vantel::Orbel {

class SharedMemReadChannelImpl;

/// A reader's claim on a published block.
class SharedMemReaderBuffer final : public SharedMemBaseBuffer {
public:
    /// Without `claimed` adds 1 to `readRef`; with it, tryClaimReader() has done so. While the
    /// claim stands the block stays the incarnation that it is.
    SharedMemReaderBuffer(unsigned int readerIndex, unsigned long channelId, BlockHeader* header,
                          void* data, bool claimed);
    /// Gives the claim back; the last reader of the block reports to the writer. Closes fd().
    ~SharedMemReaderBuffer() override;

    bool resize(unsigned int) override { return false; }
    bool resizeExtraData(unsigned int) override { return false; }
    unsigned int incReference() override;
    unsigned int decReference() override;

    /// Through which channel to report.
    void setFinish(std::weak_ptr<SharedMemReadChannelImpl> channel);

private:
    /// Takes this reader off the block; true for the last of the block's readers.
    bool leave();
    void reportFinish();

    const unsigned int mReaderIndex;
    /// Of the claim: a block that has moved on is neither touched nor reported.
    const unsigned long mSequence;
    std::weak_ptr<SharedMemReadChannelImpl> mChannel;
};

}  // namespace Vantel::Orbel
