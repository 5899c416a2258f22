#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "frame/base/ScopeExit.h"
#include "ipc/LostReaders.h"
#include "ipc/NodeDirectory.h"
#include "ipc/SharedMemPool.h"

/// What the master does for blocks whose parties died or hang, and the report on a pool. Every
/// state is changed by a swap on the sequence that was judged, so a pass runs beside the traffic.
namespace Vantel::Orbel {

namespace {

constexpr uint64_t kYoungUs = 100000;         // a pass does not look at blocks below this age
constexpr uint64_t kWriterGraceUs = 1000001;  // a writer that is not alive may still be filling
constexpr uint64_t kDiagnoseUs = 3000000;     // not the limit of the clean-up, on purpose

/// A time of 0 or in the future counts as old.
bool youngerThan(uint64_t limitUs, uint64_t timestamp, uint64_t now) {
    return timestamp != 0 && timestamp <= now && now - timestamp < limitUs;
}

uint64_t timestampOf(const BlockHeader& block) {
    return block.status.timestamp.load(std::memory_order_relaxed);
}

}  // namespace

bool SharedMemPool::checkAndCleanup(unsigned long timeoutUs) {
    PoolHeader* header = attached();
    if (header == nullptr || !header->lock.enter()) {
        return false;
    }
    const ScopeExit leave([header] { header->lock.leave(); });
    const uint64_t now = CTime::getCurrentMicroSecond();
    for (uint32_t index = 0; index < mGeometry.blockCount; ++index) {
        BlockHeader* block = blockAt(header, index);
        const BlockState state = block->status.stateWord().state;
        if (state == BlockState::Free || youngerThan(kYoungUs, timestampOf(*block), now)) {
            continue;
        }
        if (state == BlockState::Writing) {
            checkWritingBuffer(block);
        } else if (state == BlockState::Ready) {
            checkReadyBuffer(block, timeoutUs);
        }
    }
    return false;
}

void SharedMemPool::checkWritingBuffer(BlockHeader* block) {
    const StateWord word = block->status.stateWord();
    if (word.state != BlockState::Writing) {
        return;
    }
    // Slot and tag of the state word are asked, not writerId: that one is not yet stored while the
    // block has just been taken.
    if (mDomain != nullptr && mDomain->checkNodeAlive(word.writerSlot, word.writerTag)) {
        return;
    }
    if (youngerThan(kWriterGraceUs, timestampOf(*block), CTime::getCurrentMicroSecond())) {
        return;
    }
    ORBEL_LOG_WARN(
        " Cleaning up Block %u as writer is not alive in writing state, writerId=%lu, "
        "writerSlot=%u, writerTag=%u\n",
        block->locationWord().blockIndex, block->status.writerId.load(std::memory_order_relaxed),
        word.writerSlot, word.writerTag);
    releaseBlock(block, word.sequence);
}

void SharedMemPool::checkReadyBuffer(BlockHeader* block, unsigned long timeoutUs) {
    BlockStatus& status = block->status;
    const StateWord word = status.stateWord();
    if (word.state != BlockState::Ready) {
        return;
    }
    const unsigned long writerId = status.writerId.load(std::memory_order_relaxed);
    const unsigned long channelId = status.channelId.load(std::memory_order_relaxed);
    const uint64_t now = CTime::getCurrentMicroSecond();
    const bool timedOut = olderThan(timeoutUs, timestampOf(*block), now);
    const bool writerAlive =
        mDomain != nullptr && mDomain->checkNodeAlive(word.writerSlot, word.writerTag);

    const bool allDone = removeLostReaders(status, word.sequence, mDomain, timedOut);
    if (!status.readerMasks().empty() || !status.stateWord().is(word.state, word.sequence)) {
        return;
    }
    if (!writerAlive) {
        releaseBlock(block, word.sequence);
        return;
    }
    if (writerId == 0 || (!allDone && !timedOut)) {
        return;
    }
    status.timestamp.store(now, std::memory_order_relaxed);  // the next try in another timeoutUs
    if (!mDomain->notifyWriter(writerId, channelId, word.sequence, block)) {
        releaseBlock(block, word.sequence);
    }
}

namespace {

/// The line of one block that has stood in the same state for too long.
void reportTimeout(const BlockHeader& block, const StateWord& word, uint64_t writerId,
                   uint64_t ageUs) {
    const BlockStatus& status = block.status;
    const unsigned int index = block.locationWord().blockIndex;
    const double ageSeconds = static_cast<double>(ageUs) / 1000000.0;
    const uint32_t writeRef = status.writeRef.load();
    const uint32_t readRef = status.readRef.load();
    if (word.state == BlockState::Writing) {
        ORBEL_LOG_ERROR(
            "  Block[%u]: WRITING, writerId=%lu, writerSlot=%u, writerTag=%u, age=%.2fs, "
            "writeRef=%u, readRef=%u\n",
            index, writerId, word.writerSlot, word.writerTag, ageSeconds, writeRef, readRef);
    } else if (word.state == BlockState::Ready) {
        const ReaderMasks masks = status.readerMasks();
        ORBEL_LOG_ERROR(
            "  Block[%u]: READY, writerId=%lu, writerSlot=%u, writerTag=%u, age=%.2fs, "
            "writeRef=%u, readRef=%u, readMask=0x%x, claimMask=0x%x\n",
            index, writerId, word.writerSlot, word.writerTag, ageSeconds, writeRef, readRef,
            masks.read, masks.claim);
    }
}

}  // namespace

void SharedMemPool::diagnoseStatus(unsigned long writerId) const {
    PoolHeader* header = attached();
    if (header == nullptr) {
        return;
    }
    ORBEL_LOG_ERROR("=== Pool %u Diagnosis (blockCount=%u) ===\n", mPoolId, mGeometry.blockCount);
    unsigned int states[16] = {};
    unsigned int myBlocks = 0;
    unsigned int otherWriterBlocks = 0;
    unsigned int timeoutBlocks = 0;
    const uint64_t now = CTime::getCurrentMicroSecond();
    for (uint32_t index = 0; index < mGeometry.blockCount; ++index) {
        const BlockHeader& block = *blockAt(header, index);
        const StateWord word = block.status.stateWord();
        ++states[static_cast<uint32_t>(word.state)];  // 4 bits
        if (word.state == BlockState::Free) {
            continue;
        }
        const uint64_t owner = block.status.writerId.load(std::memory_order_relaxed);
        if (writerId != 0 && owner == writerId) {
            ++myBlocks;
        } else if (owner != 0) {
            ++otherWriterBlocks;
        }
        const uint64_t timestamp = timestampOf(block);
        if (olderThan(kDiagnoseUs, timestamp, now)) {
            ++timeoutBlocks;
            reportTimeout(block, word, owner, now - timestamp);
        }
    }
    const auto count = [&states](BlockState state) { return states[static_cast<uint32_t>(state)]; };
    // One line in up to three calls, as it stands.
    ORBEL_LOG_ERROR("Pool %u Status: free=%u, writing=%u, ready=%u", mPoolId,
                    count(BlockState::Free), count(BlockState::Writing), count(BlockState::Ready));
    if (writerId != 0) {
        ORBEL_LOG_ERROR(", myBlocks=%u, otherWriterBlocks=%u", myBlocks, otherWriterBlocks);
    }
    ORBEL_LOG_ERROR(", timeoutBlocks=%u\n", timeoutBlocks);
    if (timeoutBlocks > 0) {
        ORBEL_LOG_ERROR(
            "WARNING: Pool %u has %u timeout blocks (>3s), may indicate reader/writer stuck or "
            "dead\n",
            mPoolId, timeoutBlocks);
    }
}

}  // namespace Vantel::Orbel
