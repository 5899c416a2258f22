#pragma once

#include <cstdint>

#include "Vantel/Memory/InitializeMemory.h"
#include "Vantel/Orbel/CMutex.h"
#include "memory/IMemoryHandle.h"

namespace Vantel::Memory {

/// A binary buddy allocator over one region of the process, which the operators supply.
/// Its records stand on the process heap, beside the region: an overrun of a block does not reach
/// them. The lists are the lock's; everything else is fixed from the constructor on.
class BuddyMemoryHandle final : public IMemoryHandle {
public:
    /// Takes the region at once; no memory for it ends the process.
    BuddyMemoryHandle(const MemoryOperator& op, const MemoryParameter& param);
    BuddyMemoryHandle(const BuddyMemoryHandle&) = delete;
    BuddyMemoryHandle& operator=(const BuddyMemoryHandle&) = delete;
    ~BuddyMemoryHandle() override;

    /// `size` is not written back.
    void* malloc(int& size) override;
    void free(void* block) override;
    void* memcpy(void* to, const void* from, int size) override;
    uint32_t getMemorySize() override;
    uint32_t getFreeSize() override;
    void printNodes() override;

private:
    /// One chunk, or the head of a free list, which is a sentinel in a ring.
    struct Block {
        int32_t index;
        int32_t order;  // the state of the chunk, see BuddyPages.h
        uint8_t* address;
        Block* prev;
        Block* next;
    };
    static_assert(sizeof(Block) == 32);
    class Store;

    void initMemoryAlg();
    bool inside(const void* address) const;

    uint8_t* mBase = nullptr;
    void* mOriginBuffer = nullptr;
    Block* mBlocks = nullptr;
    Block* mLists = nullptr;
    int32_t mChunkMask;
    int32_t mChunkShift;
    int32_t mOrderCount;
    int32_t mBlockCount;
    MemoryOperator mOperator;
    int32_t mTotalSize;
    int32_t mChunkSize;
    int32_t mAlignSize;
    Orbel::CMutex mMutex;
};

}  // namespace Vantel::Memory
