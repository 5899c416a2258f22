#include "ipc/SharedMemBaseBuffer.h"

#include <algorithm>
#include <utility>

#include "ipc/SegmentLayout.h"
#include "ipc/SharedMemory.h"

namespace Vantel::Orbel {

SharedMemBaseBuffer::SharedMemBaseBuffer(unsigned long channelId, BlockHeader* header, void* data)
    : mData(data), mChannelId(channelId), mHeader(header) {}

void SharedMemBaseBuffer::attachPool(std::shared_ptr<SharedMemory> memory, unsigned int capacity,
                                     unsigned int extraCapacity) {
    mMemory = std::move(memory);
    mCapacity = capacity;
    mExtraCapacity = extraCapacity;
}

int SharedMemBaseBuffer::detachFd() {
    return std::exchange(mFd, -1);
}

int SharedMemBaseBuffer::fd(int descriptor) {
    return mFd = descriptor;
}

// Both sizes lie in shared memory: whatever stands there, nobody is sent beyond the block.
unsigned int SharedMemBaseBuffer::size() const {
    return std::min(mHeader->size.load(std::memory_order_relaxed), mCapacity);
}

unsigned int SharedMemBaseBuffer::extraDataSize() const {
    return std::min(mHeader->extraDataSize.load(std::memory_order_relaxed), mExtraCapacity);
}

void* SharedMemBaseBuffer::extraData() {
    return mHeader->extraData();
}

unsigned int SharedMemBaseBuffer::blockIndex() const {
    return mHeader->locationWord().blockIndex;
}

unsigned long SharedMemBaseBuffer::timestamp() const {
    return mHeader->status.timestamp.load(std::memory_order_relaxed);
}

}  // namespace Vantel::Orbel
