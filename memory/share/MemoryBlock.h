#pragma once

#include <cstdint>
#include <new>

#include "Vantel/Memory/ShareMemoryPool.h"

namespace Vantel::Memory {

/// A block of the shared pool as this process uses it: one object a block, counted by
/// MemoryBlockPool. Each createMemoryBlock() and each getMemoryBlock() is undone by one `delete`;
/// the object, and this process's hold on the block, go with the last.
///
/// Threads: all from any thread.
class MemoryBlock {
public:
    MemoryBlock(const MemoryBlock&) = delete;
    MemoryBlock& operator=(const MemoryBlock&) = delete;
    ~MemoryBlock() = default;  // `delete` ends up in operator delete below

    /// A new block of at least `size` bytes. Null, with an error line, if there is none to be had
    /// (nothing stays behind); the process ends (assertion) if there is no pool.
    static MemoryBlock* createMemoryBlock(int32_t size);

    /// Writes the description of the block at `buffer`, which this process holds, to the `len`
    /// bytes at `desc` (20 or more, the rest zero), and counts it as under way. A negative `len`
    /// passes for enough, as it stands: 20 bytes are written then.
    static bool getMemoryBlockDesc(void* buffer, void* desc, int32_t len);

    /// Whether `desc` looks like a description; a negative `len` passes for enough.
    static bool checkMemoryBlockDesc(const void* desc, int32_t len);

    /// Claims a description: the block it stands for, the same object each time. Null, with an
    /// error line, if it is none, contradicts the pool, or its block is gone.
    static MemoryBlock* getMemoryBlock(const void* desc, int32_t len);

    /// Bytes.
    int32_t getSize() const { return mSize; }
    void* getBuffer() const { return mBuffer; }

    /// Runs in place of the destructor: the object lives on while it is counted, so it must not
    /// be dead already.
    static void operator delete(MemoryBlock* block, std::destroying_delete_t);

private:
    MemoryBlock(void* buffer, int32_t size) : mSize(size), mBuffer(buffer) {}

    static MemoryBlock* claimBlock(ShareMemoryPool& pool, int32_t offset, uint32_t size);
    static void destroyObject(MemoryBlock* block);

    int32_t mSize;
    void* mBuffer;
};

/// What this process knows of its pool: filled when it attaches, or from the first description it
/// claims; the process that created the pool never fills it itself. Any thread.
ShareMemoryPool::Param knownPoolParam();
void setKnownPoolParam(const ShareMemoryPool::Param& param);

}  // namespace Vantel::Memory
