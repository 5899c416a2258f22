#pragma once

#include <memory>

#include "Vantel/Orbel/SharedMemBuffer.h"

namespace Vantel::Orbel {

struct BlockHeader;
class SharedMemory;

/// What the buffers of readers and writers have in common: everything but the rights to resize and
/// the side whose count they hold.
class SharedMemBaseBuffer : public SharedMemBuffer {
public:
    SharedMemBaseBuffer(const SharedMemBaseBuffer&) = delete;
    SharedMemBaseBuffer& operator=(const SharedMemBaseBuffer&) = delete;

    int fd() const override { return mFd; }
    int detachFd() override;
    int fd(int descriptor) override;
    void* data() override { return mData; }
    unsigned int size() const override;
    unsigned int capacity() const override { return mCapacity; }
    void* extraData() override;
    unsigned int extraDataSize() const override;
    unsigned int extraDataCapacity() const override { return mExtraCapacity; }
    unsigned long channelId() const override { return mChannelId; }
    unsigned int blockIndex() const override;
    unsigned long timestamp() const override;

    BlockHeader* header() const { return mHeader; }

    /// `memory`, the mapping that `header` and `data` lie in, is owned along with others: a domain
    /// may be left while the application still holds samples.
    void attachPool(std::shared_ptr<SharedMemory> memory, unsigned int capacity,
                    unsigned int extraCapacity);

protected:
    SharedMemBaseBuffer(unsigned long channelId, BlockHeader* header, void* data);

    void* mData;
    int mFd = -1;
    unsigned long mChannelId;
    unsigned int mCapacity = 0;
    unsigned int mExtraCapacity = 0;
    BlockHeader* mHeader;

private:
    std::shared_ptr<SharedMemory> mMemory;
};

}  // namespace Vantel::Orbel
