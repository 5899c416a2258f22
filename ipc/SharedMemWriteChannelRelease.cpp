// The way of a block back: from the finish of its readers, the end of its last handle, or a check.

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "frame/base/ScopeExit.h"
#include "ipc/LostReaders.h"
#include "ipc/PipeMessage.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemPool.h"
#include "ipc/SharedMemWriteChannelImpl.h"

namespace Vantel::Orbel {

namespace {

/// Not the limit of the master's pass, on purpose.
constexpr uint64_t kReadyLimitUs = 3000000;

}  // namespace

bool SharedMemWriteChannelImpl::handleDataFinish(const PipeMessage& message) {
    const auto domain = mDomain.lock();
    if (!domain) {
        return false;
    }
    const auto pool = domain->getPool(message.poolId());
    if (!pool) {
        ORBEL_LOG_ERROR("Failed to find pool for block %u in handleDataFinish\n",
                        message.blockIndex());
        return false;
    }
    BlockHeader* const header = pool->getBlockHeader(message.blockIndex());
    if (header == nullptr) {
        ORBEL_LOG_ERROR("Failed to get block header %u from pool %u in handleDataFinish\n",
                        message.blockIndex(), message.poolId());
        return false;
    }
    BlockStatus& status = header->status;
    const StateWord word = status.stateWord();
    if (status.writerId.load() != mNodeId || word.sequence != message.sequence) {
        return true;  // stale: the block has moved on
    }
    const ReaderMasks masks = status.readerMasks();
    if (!masks.empty() || word.state != BlockState::Ready) {
        ORBEL_LOG_ERROR(
            "SharedMemWriteChannel handleDataFinish block index %d not ready %d, readMask=0x%x, "
            "claimMask=0x%x, readRef=%u\n",
            static_cast<int>(message.blockIndex()), static_cast<int>(word.state), masks.read,
            masks.claim, status.readRef.load());
        return false;
    }
    // The flight has one hold however often its end is reported; a second report would take one
    // from a handle, or from the block's next owner.
    if (!pool->takeInFlight(message.blockIndex(), message.sequence)) {
        return true;
    }
    if (status.writeRef.lower() == 1) {
        releaseBuffer(header, static_cast<unsigned char*>(pool->getBlockData(message.blockIndex())),
                      message.sequence);
    }
    return true;
}

void SharedMemWriteChannelImpl::releaseBuffer(BlockHeader* header, unsigned char* data,
                                              unsigned long sequence) {
    runReleaseCallback(*header, data);
    BlockStatus& status = header->status;
    const LocationWord location = header->locationWord();
    const auto block = static_cast<int>(location.blockIndex);
    const ReaderMasks masks = status.readerMasks();
    const uint32_t writeRef = status.writeRef.load();
    const uint32_t readRef = status.readRef.load();
    if (!masks.empty() || writeRef != 0 || readRef != 0) {
        ORBEL_LOG_WARN(
            " SharedMemWriteChannel releaseBuffer block %d has pending refs: writeRef=%d, "
            "readRef=%u, readMask=0x%x, claimMask=0x%x\n",
            block, static_cast<int>(writeRef), readRef, masks.read, masks.claim);
    }
    const auto domain = mDomain.lock();
    if (!domain) {
        ORBEL_LOG_ERROR("Failed to cast domain when releasing block %d\n", block);
        return;
    }
    if (const auto pool = domain->getPool(location.poolId)) {
        if (!pool->releaseBlock(header, sequence)) {
            ORBEL_LOG_ERROR("Failed to release block %d to pool %u, current state=%d\n", block,
                            location.poolId, static_cast<int>(status.stateWord().state));
        }
        return;
    }
    ORBEL_LOG_ERROR("Failed to get pool %u when releasing block %d\n", location.poolId, block);
    freeByHand(*header, sequence);
}

void SharedMemWriteChannelImpl::runReleaseCallback(BlockHeader& header, unsigned char* data) {
    const auto* const callback = mReleaseCallback.load(std::memory_order_acquire);
    if (callback != nullptr) {
        (*callback)(data, header.size.load(std::memory_order_relaxed), header.extraData(),
                    header.extraDataSize.load(std::memory_order_relaxed));
    }
}

void SharedMemWriteChannelImpl::freeByHand(BlockHeader& header, unsigned long sequence) {
    BlockStatus& status = header.status;
    StateWord word = status.stateWord();
    const BlockState state = word.state;
    while (word.is(state, sequence)) {
        if (status.exchangeState(word, word.nextFree())) {
            return;
        }
    }
    ORBEL_LOG_ERROR("Failed to set block %d free, state=%d\n",
                    static_cast<int>(header.locationWord().blockIndex),
                    static_cast<int>(word.state));
}

void SharedMemWriteChannelImpl::checkAndCleanupBuffers() {
    const auto domain = mDomain.lock();
    ChannelStatus* const table = status();
    if (mNode.expired() || !domain || table == nullptr || !table->lock.enter()) {
        return;
    }
    const ScopeExit leave([table] { table->lock.leave(); });
    const auto dropDead = [&](SharedField<uint64_t>& entry) {
        const unsigned long id = entry.load();
        if (id != 0 && id != mNodeId && !domain->checkNodeAlive(id)) {
            entry.store(0);
        }
    };
    for (auto& reader : table->readerIds) {
        dropDead(reader);
    }
    for (auto& writer : table->writerIds) {
        dropDead(writer);
    }
    checkBuffers();
}

void SharedMemWriteChannelImpl::checkWritingBuffer(
    BlockHeader* header, const std::shared_ptr<SharedDomainImpl>& domain) {
    if (header == nullptr || !domain) {
        return;
    }
    const StateWord word = header->status.stateWord();
    const unsigned long writerId = header->status.writerId.load();
    if (word.state != BlockState::Writing || writerId == mNodeId ||
        domain->checkNodeAlive(writerId)) {
        return;
    }
    if (const auto pool = domain->getPool(header->locationWord().poolId)) {
        pool->releaseBlock(header, word.sequence);
    }
}

void SharedMemWriteChannelImpl::checkReadyBuffer(BlockHeader* header,
                                                 const std::shared_ptr<SharedDomainImpl>& domain) {
    if (header == nullptr || !domain) {
        return;
    }
    BlockStatus& status = header->status;
    const StateWord word = status.stateWord();
    if (word.state != BlockState::Ready) {
        return;
    }
    const unsigned long writerId = status.writerId.load();
    const uint64_t now = CTime::getCurrentMicroSecond();
    const bool timedOut = olderThan(kReadyLimitUs, status.timestamp.load(), now);
    const bool writerAlive = domain->checkNodeAlive(word.writerSlot, word.writerTag);
    const bool allDone =
        removeLostReaders(status, word.sequence, domain.get(), timedOut,
                          [this](uint64_t readerId) { unregisterReader(readerId); });
    if (!status.readerMasks().empty() || !status.stateWord().is(BlockState::Ready, word.sequence)) {
        return;
    }
    const LocationWord location = header->locationWord();
    if (!writerAlive) {
        unregisterWriter(writerId);
        if (const auto pool = domain->getPool(location.poolId)) {
            pool->releaseBlock(header, word.sequence);
        }
        return;
    }
    if (writerId == 0 || (!allDone && !timedOut)) {
        return;
    }
    if (writerId == mNodeId) {
        handleDataFinish(PipeMessage::make(PipeAction::DataFinish, location, mChannelId, writerId,
                                           word.sequence));
        return;
    }
    status.timestamp.store(now, std::memory_order_relaxed);
    notifyWriterDataFinished(header, word.sequence);
}

}  // namespace Vantel::Orbel
