#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Vantel/Orbel/CProcessMutex.h"
#include "ipc/SegmentLayout.h"

namespace Vantel::Orbel {

class NodeDirectory;
class SharedMemory;

/// One process's view of a pool segment: equal blocks, each with a header, an extra-data area and a
/// payload. The blocks' state machine, taking and giving back without a lock, and the clean-up that
/// takes blocks away from the dead and the stuck.
///
/// Threads: any, of any process, at once; init() and deInit() one at a time. A caller holds the
/// pool by shared pointer while it is in a call; who keeps a block longer co-owns memory().
class SharedMemPool {
public:
    /// `name`: domain name + "_" + pool name; sizes in bytes. Nothing is opened yet.
    SharedMemPool(unsigned int poolId, const std::string& name, unsigned int blockSize,
                  unsigned int extraSize, unsigned int blockCount);
    ~SharedMemPool();
    SharedMemPool(const SharedMemPool&) = delete;
    SharedMemPool& operator=(const SharedMemPool&) = delete;

    /// Opens or makes the segment and attaches. `domain` answers the liveness questions; not owned,
    /// may be null: then writers count as not alive in a clean-up, and nobody is told.
    /// False with log lines if the segment cannot be had or is not this pool's.
    bool init(NodeDirectory* domain);
    /// Detaches: every operation fails softly from here on. Always true.
    bool deInit();

    /// Takes a free block: it is in state writing then, its other fields cleared. Null if there is
    /// none, silently. No lock, no system call but the clock's, no heap.
    BlockHeader* allocateBlock(unsigned long writerId, unsigned int writerSlot,
                               unsigned int writerTag, unsigned long channelId);
    /// Gives incarnation `sequence` of a block back. True if it is free already; false with a log
    /// line if the block belongs to another incarnation.
    bool releaseBlock(BlockHeader* block, unsigned long sequence);
    /// The same with the block's present sequence.
    bool releaseBlock(BlockHeader* block);

    /// Null beyond the last block, and while not attached.
    BlockHeader* getBlockHeader(unsigned int index) const;
    /// The block whose payload holds the address `data`, or null.
    BlockHeader* getBlockHeaderByData(const void* data) const;
    void* getBlockData(unsigned int index) const;
    /// True if `block` is exactly the start of one of this pool's block headers.
    bool containsBlock(const BlockHeader* block) const;

    /// The in-flight hold of a published block, process-local: set by the writer before the block
    /// becomes ready as incarnation `sequence`, taken by the first finish that reports it. Exactly
    /// one takeInFlight() for each armInFlight() is true; later and repeated finishes are stale.
    void armInFlight(unsigned int index, unsigned long sequence);
    bool takeInFlight(unsigned int index, unsigned long sequence);

    /// One clean-up pass, in the master process only. Always false.
    bool checkAndCleanup(unsigned long timeoutUs);
    /// Frees a block in state writing whose writer has died.
    void checkWritingBuffer(BlockHeader* block);
    /// Takes dead readers, and after `timeoutUs` those that never claimed, off a ready block.
    /// With nobody left to wait for, tells the writer again or frees the block.
    void checkReadyBuffer(BlockHeader* block, unsigned long timeoutUs);

    /// Logs the state of the pool at error level; `writerId` 0: without the count of own blocks.
    void diagnoseStatus(unsigned long writerId) const;

    /// Bytes of the segment, in 32 bits. init() refuses a pool for which they do not suffice.
    unsigned int calculatePoolSize() const;
    std::string generateShmName() const;
    /// Two steps of init(), under the process mutex, with the segment mapped.
    bool initPoolMemory();
    bool loadPoolMemory();

    unsigned int poolId() const { return mPoolId; }
    const std::string& name() const { return mName; }
    unsigned int blockSize() const { return mGeometry.blockSize; }
    unsigned int extraSize() const { return mGeometry.extraSize; }
    unsigned int blockCount() const { return mGeometry.blockCount; }
    /// The mapping that all blocks of this pool lie in; null before init(). It goes with its last
    /// owner: a buffer that holds it may outlive the pool.
    std::shared_ptr<SharedMemory> memory() const { return mMemory; }

private:
    bool matches(const PoolHeader& header) const;
    BlockHeader* blockAt(PoolHeader* header, unsigned int index) const;
    PoolHeader* attached() const { return mHeader.load(std::memory_order_acquire); }

    const unsigned int mPoolId;
    const std::string mName;
    const PoolGeometry mGeometry;  // ours, never read again from the segment
    CProcessMutex mMutex;
    std::atomic<PoolHeader*> mHeader{nullptr};
    NodeDirectory* mDomain = nullptr;
    std::shared_ptr<SharedMemory> mMemory;
    std::unique_ptr<std::atomic<uint64_t>[]> mInFlight;
};

}  // namespace Vantel::Orbel
