#include "ipc/SharedMemReadChannelImpl.h"

#include <utility>

#include "frame/base/Log.h"
#include "ipc/AsyncReadTask.h"
#include "ipc/PipeMessage.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemPool.h"
#include "ipc/SharedMemReaderBuffer.h"

namespace Vantel::Orbel {

SharedMemReadChannelImpl::SharedMemReadChannelImpl(const std::string& name,
                                                   std::weak_ptr<SharedMemNodeImpl> node)
    : SharedMemChannel(name, std::move(node)) {}

SharedMemReadChannelImpl::~SharedMemReadChannelImpl() {
    SharedMemReadChannelImpl::close();
}

bool SharedMemReadChannelImpl::init() {
    return createStatusMemory();
}

bool SharedMemReadChannelImpl::setSyncMode(bool sync) {
    mSyncMode.store(sync, std::memory_order_relaxed);
    return true;
}

bool SharedMemReadChannelImpl::open(const std::function<Callback>& callback) {
    if (status() == nullptr) {
        ORBEL_LOG_ERROR("reader channel %s status shared memory is null\n", mName.c_str());
        return false;
    }
    {
        std::lock_guard<std::mutex> guard(mCallbackMutex);
        mReadCallback =
            callback ? std::make_shared<const std::function<Callback>>(callback) : nullptr;
        // Before the registration: the first message may follow it at once.
        mOpened.store(true);
    }
    if (registerReader()) {
        return true;
    }
    std::shared_ptr<const std::function<Callback>> unused;  // dies outside the lock
    {
        std::lock_guard<std::mutex> guard(mCallbackMutex);
        unused.swap(mReadCallback);
        mOpened.store(false);
    }
    ORBEL_LOG_ERROR("Failed to register reader for channel %s\n", mName.c_str());
    return false;
}

bool SharedMemReadChannelImpl::close() {
    std::shared_ptr<const std::function<Callback>> unused;
    {
        std::lock_guard<std::mutex> guard(mCallbackMutex);
        if (!mOpened.exchange(false)) {
            return true;
        }
        unused.swap(mReadCallback);
    }
    if (status() != nullptr) {
        unregisterReader(mNodeId);
    }
    return true;
}

// A refusal leaves the block as it is: the master takes this reader off it when the time limit is
// over, and the writer is not told.
bool SharedMemReadChannelImpl::handleDataReady(const PipeMessage& message) {
    const auto domain = mDomain.lock();
    if (!domain) {
        ORBEL_LOG_ERROR("Failed to get domain for channel %s\n", mName.c_str());
        return false;
    }
    if (!mOpened.load()) {
        ORBEL_LOG_ERROR("reader channel %s closed\n", mName.c_str());
        return false;
    }
    const auto pool = domain->getPool(message.poolId());
    if (!pool) {
        ORBEL_LOG_ERROR("Failed to get pool %u for block %u in channel %s\n", message.poolId(),
                        message.blockIndex(), mName.c_str());
        return false;
    }
    BlockHeader* const header = pool->getBlockHeader(message.blockIndex());
    if (header == nullptr) {
        ORBEL_LOG_ERROR("Failed to get block header %u from pool %u in channel %s\n",
                        message.blockIndex(), message.poolId(), mName.c_str());
        return false;
    }
    const int found = findReader(*header, message);
    if (found < 0) {
        return false;
    }
    const auto reader = static_cast<unsigned int>(found);
    BlockStatus& status = header->status;
    if (!status.tryClaimReader(reader, message.writerId, message.sequence)) {
        const ReaderMasks masks = status.readerMasks();
        ORBEL_LOG_ERROR(
            "ShreadMemReadChannel handleDataReady block index %d claim failed, readerIndex %d "
            "state %d, readMask 0x%x, claimMask 0x%x\n",
            static_cast<int>(message.blockIndex()), found,
            static_cast<int>(status.stateWord().state), masks.read, masks.claim);
        return false;
    }
    void* const data = pool->getBlockData(message.blockIndex());
    if (data == nullptr) {
        ORBEL_LOG_ERROR("Failed to get block data %u from pool %u in channel %s\n",
                        message.blockIndex(), message.poolId(), mName.c_str());
        status.readRef.lower();
        status.leaveReader(reader);
        return false;
    }
    auto buffer = std::make_shared<SharedMemReaderBuffer>(reader, mChannelId, header, data, true);
    buffer->setFinish(weak_from_this());
    buffer->fd(message.fd);  // owned by the buffer from here on
    buffer->attachPool(pool->memory(), pool->blockSize(), pool->extraSize());
    deliver(std::move(buffer), *domain);
    return true;
}

int SharedMemReadChannelImpl::findReader(const BlockHeader& header,
                                         const PipeMessage& message) const {
    const BlockStatus& status = header.status;
    const unsigned long writerId = status.writerId.load();
    if (writerId != message.writerId) {
        ORBEL_LOG_ERROR("Block %u writerId mismatch: expected %lu, got %lu\n", message.blockIndex(),
                        static_cast<unsigned long>(message.writerId), writerId);
        return -1;
    }
    const unsigned long sequence = status.stateWord().sequence;
    if (sequence != message.sequence) {
        ORBEL_LOG_ERROR("handleDataReady block index %d sequence %lld, %lld, writerId %lld,%lld\n",
                        static_cast<int>(message.blockIndex()), static_cast<long long>(sequence),
                        static_cast<long long>(message.sequence), static_cast<long long>(writerId),
                        static_cast<long long>(message.writerId));
        return -1;
    }
    for (unsigned int reader = 0; reader < kMaxReaders; ++reader) {
        if (status.readerIds[reader].load(std::memory_order_relaxed) == mNodeId) {
            return static_cast<int>(reader);
        }
    }
    ORBEL_LOG_ERROR(">>>> read buffer not found reader index seq = %lld, %lld\n",
                    static_cast<long long>(sequence), static_cast<long long>(message.sequence));
    return -1;
}

void SharedMemReadChannelImpl::deliver(std::shared_ptr<SharedMemBuffer> buffer,
                                       SharedDomainImpl& domain) {
    if (mSyncMode.load(std::memory_order_relaxed)) {
        dispatchBuffer(std::move(buffer));
        return;
    }
    const unsigned int block = buffer->blockIndex();
    // The domain owns the task from here on, also if it refuses it: this sample is skipped then,
    // and the end of its buffer settles the block.
    if (!domain.postAsyncTask(new AsyncReadTask(weak_from_this(), std::move(buffer), domain))) {
        ORBEL_LOG_WARN(" Failed to post async read callback task, channel=%s block=%u\n",
                       mName.c_str(), block);
    }
}

void SharedMemReadChannelImpl::dispatchBuffer(std::shared_ptr<SharedMemBuffer> buffer) {
    // Outside the lock, so that the callback may close the channel; and what close() takes out
    // meanwhile lives as long as this call.
    if (const auto call = callback()) {
        (*call)(buffer);
    }
}

std::shared_ptr<const std::function<SharedMemReadChannel::Callback>>
SharedMemReadChannelImpl::callback() {
    std::lock_guard<std::mutex> guard(mCallbackMutex);
    return mReadCallback;  // null while closed
}

}  // namespace Vantel::Orbel
