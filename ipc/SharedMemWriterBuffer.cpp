#include "ipc/SharedMemWriterBuffer.h"

#include <utility>

#include "ipc/SharedMemWriteChannelImpl.h"

namespace Vantel::Orbel {

SharedMemWriterBuffer::SharedMemWriterBuffer(unsigned long channelId, BlockHeader* header,
                                             void* data, bool held)
    : SharedMemBaseBuffer(channelId, header, data), mOwned(header->status.stateWord()) {
    if (!held) {
        header->status.writeRef.fetchAdd(1);
    }
}

SharedMemWriterBuffer::~SharedMemWriterBuffer() {
    BlockStatus& status = mHeader->status;
    // A block that was taken away counts somebody else's holds by now.
    if (!owns(status.stateWord()) || status.writeRef.lower() != 1) {
        return;
    }
    const auto channel = mChannel.lock();
    // The last hold goes with the block's present sequence, which another handle's commit may have
    // moved on since this one was made.
    const StateWord word = status.stateWord();
    if (channel && owns(word)) {
        channel->releaseBuffer(mHeader, static_cast<unsigned char*>(mData), word.sequence);
    }
}

bool SharedMemWriterBuffer::resize(unsigned int sizeBytes) {
    if (sizeBytes > mCapacity) {
        return false;
    }
    mHeader->size.store(sizeBytes, std::memory_order_relaxed);
    return true;
}

bool SharedMemWriterBuffer::resizeExtraData(unsigned int sizeBytes) {
    if (sizeBytes > mExtraCapacity) {
        return false;
    }
    mHeader->extraDataSize.store(sizeBytes, std::memory_order_relaxed);
    return true;
}

unsigned int SharedMemWriterBuffer::incReference() {
    return mHeader->status.writeRef.fetchAdd(1) + 1;
}

unsigned int SharedMemWriterBuffer::decReference() {
    const unsigned int before = mHeader->status.writeRef.lower();
    return before == 0 ? 0 : before - 1;
}

void SharedMemWriterBuffer::setFinish(std::weak_ptr<SharedMemWriteChannelImpl> channel) {
    mChannel = std::move(channel);
}

}  // namespace Vantel::Orbel
