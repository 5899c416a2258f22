#pragma once

#include <cstdint>
#include <memory>

#include "Vantel/Export.h"

namespace Vantel::Memory {

class MemoryBlock;
class ShareMemoryManager;
struct Buddy;
struct MemoryRefer;
struct SmallMemory;

/// Blocks of memory that several processes use in place, in two System V segments. Each block has
/// a list of the processes that hold it and a count of the descriptions of it that are under way;
/// it is free again once both are empty. What a dead process held, and what nobody claimed, is
/// reclaimed by the cleaning timer of the process that created the pool (once a second).
///
/// Reached through ShareMemoryManager, which owns the pool; there is one in a process, and it lives
/// until the process ends.
///
/// Threads: all methods from any thread of any attached process.
class ORBEL_API ShareMemoryPool {
public:
    /// What a pool is created with; who attaches takes the sizes from the pool.
    struct Param {
        uint32_t type;       ///< 0, the only kind
        uint32_t dataSize;   ///< bytes of the data segment
        uint32_t pageSize;   ///< bytes, a power of two from 1024; ignored by who attaches
        uint32_t orderNum;   ///< limits blocks to 2^(orderNum - 1) pages; 0: no limit
        uint32_t debugMode;  ///< 0: none; 1: write guard behind each block; 2: in front of each
    };

    /// Takes over the three tables. Made by ShareMemoryManager only.
    ORBEL_LOCAL ShareMemoryPool(Buddy* buddy, MemoryRefer* refer, SmallMemory* smallMem);
    ShareMemoryPool(const ShareMemoryPool&) = delete;
    ShareMemoryPool& operator=(const ShareMemoryPool&) = delete;

    /// Ends the process with a failed assertion: a pool is meant to live as long as its process.
    virtual ~ShareMemoryPool();

    /// Deletes the object, see the destructor.
    virtual void destroy();

    /// A block of at least `size` bytes, page-aligned in the segment and not cleared, held by this
    /// process; `size` becomes what was granted: pages times a power of two. Null if there is no
    /// room (`size` as it was) or if the block could not be recorded. O(orders of the pool).
    virtual void* malloc(int32_t& size);

    /// Ends this process's hold on a block: false for null, for an address at which no block
    /// starts, and for one that this process does not hold.
    virtual bool free(void* addr);

    /// The address in this process of the block at `offset`, which this process then holds once
    /// more: it takes one free() each. Null if there is no live block.
    virtual void* getMemory(int32_t offset);

    /// Where `buf`, the start of a block, lies in the data segment. False if no block starts there
    /// (`offset` is written all the same) and for null.
    virtual bool getOffset(void* buf, int32_t& offset);

    /// Counts a description of the block `mem` that was sent out: until it is claimed the block
    /// lives on for two rounds of cleaning even without a holder. False if there is no such block.
    virtual bool incDeliverRef(void* mem);

    /// Counts a description that was claimed. False if none is under way.
    virtual bool decDeliverRef(void* mem);

    /// One round of cleaning, as the timer runs it; false if no block is in use.
    virtual bool expireClean();

    /// Ends one hold of the process `pid` on each block. False if the table refuses.
    virtual bool freeResourceByPid(int32_t pid);

    /// What the pool was created with (`debugMode` is left as it is). Always true.
    virtual bool getMemoryPoolParam(Param& param);

    /// Bytes that the pool manages. Always true.
    bool getTotalSize(uint32_t& size);

    /// Bytes that are free, in whatever pieces. Always true.
    bool getFreeSize(uint32_t& size);

    /// Logs each free block (level info).
    void dumpInfo();

    /// The cleaning timer's callback; the argument is not used.
    void timerProc(uint64_t param);

private:
    friend class MemoryBlock;
    friend class ShareMemoryManager;
    class ORBEL_LOCAL Internal;

    ORBEL_LOCAL bool startCleaning();
    ORBEL_LOCAL uint32_t blockSize(int32_t offset) const;

    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Memory
