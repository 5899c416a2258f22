#pragma once

#include <atomic>
#include <cstdint>
#include <map>

#include "Vantel/Orbel/CMutex.h"

namespace Vantel::Memory {

class MemoryBlock;

/// The blocks of the shared pool that this process uses, by offset, each with its object and the
/// number of its users.
///
/// Threads: any. The lock is held around the map alone: no call of the pool is made under it.
class MemoryBlockPool {
public:
    /// Never destroyed: blocks are let go of by static objects too.
    static MemoryBlockPool& instance();

    /// Enters `block` with one user; an offset that is there already gets one more, and the object
    /// that it has stays. False, with an error line, if the pool knows no block there.
    bool addBlock(MemoryBlock* block);

    /// The object at `offset` with one user more, null if there is none.
    MemoryBlock* acquireBlock(int32_t offset);

    /// The object at `offset`, null if there is none.
    MemoryBlock* findBlock(int32_t offset);

    /// One user less: 1 if there are others left, 0 if the entry went, -1 if there is none (with
    /// an error line).
    int32_t releaseBlock(MemoryBlock* block);

private:
    struct Entry {
        explicit Entry(MemoryBlock* memoryBlock) : block(memoryBlock), users(1) {}

        MemoryBlock* block;
        std::atomic<uint32_t> users;
    };

    Orbel::CMutex mMutex;
    std::map<int32_t, Entry> mBlocks;
};

}  // namespace Vantel::Memory
