#include "ipc/SharedMemReaderBuffer.h"

#include <unistd.h>

#include <utility>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "ipc/SegmentLayout.h"
#include "ipc/SharedMemReadChannelImpl.h"

namespace Vantel::Orbel {

SharedMemReaderBuffer::SharedMemReaderBuffer(unsigned int readerIndex, unsigned long channelId,
                                             BlockHeader* header, void* data, bool claimed)
    : SharedMemBaseBuffer(channelId, header, data),
      mReaderIndex(readerIndex),
      mSequence(header->status.stateWord().sequence) {
    if (!claimed) {
        header->status.readRef.fetchAdd(1);
    }
}

SharedMemReaderBuffer::~SharedMemReaderBuffer() {
    if (leave()) {
        reportFinish();
    }
    if (mFd >= 0) {
        ::close(std::exchange(mFd, -1));
    }
}

// One atomic AND takes the bits out of both masks and tells what is left, so that exactly one
// reader is the last, however many leave at once.
bool SharedMemReaderBuffer::leave() {
    BlockStatus& status = mHeader->status;
    // A block can only have moved on if its cleaner took this node for dead. The bits and counts
    // in it are somebody else's then.
    if (!status.stateWord().is(BlockState::Ready, mSequence)) {
        return false;
    }
    status.timestamp.store(CTime::getCurrentMicroSecond(), std::memory_order_relaxed);
    status.readRef.lower();
    return mReaderIndex < kMaxReaders ? status.leaveReader(mReaderIndex)
                                      : status.readerMasks().empty();
}

void SharedMemReaderBuffer::reportFinish() {
    const BlockStatus& status = mHeader->status;
    // Whoever died with a claim left its count behind; the block is reported all the same.
    const unsigned int readRef = status.readRef.load();
    if (readRef != 0) {
        ORBEL_LOG_WARN(" SharedMemReaderBuffer destructor: Block %u readRefCount is not zero: %u\n",
                       blockIndex(), readRef);
    }
    const StateWord word = status.stateWord();
    const ReaderMasks masks = status.readerMasks();
    if (word.state != BlockState::Ready || !masks.empty() || readRef != 0) {
        ORBEL_LOG_WARN(
            " ReaderFinishCallback reader buffer %d finish error readMask 0x%x, claimMask 0x%x, "
            "readRef %u, state %d\n",
            static_cast<int>(blockIndex()), masks.read, masks.claim, readRef,
            static_cast<int>(word.state));
    }
    if (const auto channel = mChannel.lock()) {
        channel->notifyWriterDataFinished(mHeader, mSequence);
    }
}

unsigned int SharedMemReaderBuffer::incReference() {
    return mHeader->status.readRef.fetchAdd(1) + 1;
}

unsigned int SharedMemReaderBuffer::decReference() {
    const unsigned int before = mHeader->status.readRef.lower();
    return before == 0 ? 0 : before - 1;
}

void SharedMemReaderBuffer::setFinish(std::weak_ptr<SharedMemReadChannelImpl> channel) {
    mChannel = std::move(channel);
}

}  // namespace Vantel::Orbel
