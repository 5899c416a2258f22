#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Vantel/Export.h"
#include "Vantel/Memory/ShareMemoryPool.h"

namespace Vantel::Memory {

/// Makes the pool of shared memory of a machine, or attaches to it. One process creates it, before
/// any other attaches; there is one pool on a machine (in an IPC namespace).
///
/// Leaves on the machine: the System V segments 0x111115ac (bookkeeping) and 0x111115ad (data),
/// until the next creation or a removal by hand (`ipcrm -M`).
///
/// Threads: loadMemPool() and createMemPool() from any thread; the setters before either.
class ORBEL_API ShareMemoryManager {
public:
    ///@{
    /// As malloc() and free() of the C library.
    using Allocate = void* (*)(size_t sizeBytes);
    using Release = void (*)(void* memory);
    ///@}
    /// Maps the segment of `key`, making it if `flags` holds 0x200; null on failure.
    using SegmentGet = void* (*)(const char* key, int32_t size, int32_t flags);
    /// Unmaps `addr` (`how` 1) or removes the segment of `key` (`how` 2); 0, or negative.
    using SegmentRelease = int32_t (*)(const char* key, void* addr, int32_t how);

    /// Never destroyed: the pool outlives all static objects of the process.
    static ShareMemoryManager* instance();

    ShareMemoryManager(const ShareMemoryManager&) = delete;
    ShareMemoryManager& operator=(const ShareMemoryManager&) = delete;

    /// The pool of this process, attached at the first call; later ones only look it up. Of `param`
    /// the `type` must be 0, and `debugMode` is taken; the sizes may be 0. Null, with an error
    /// line and nothing left attached, if there is no pool on the machine, it isn't whole, or a
    /// creator replaces it at that moment.
    ShareMemoryPool* loadMemPool(ShareMemoryPool::Param* param);

    /// Makes the pool, in place of one that is there, and starts its cleaning. With a `debugMode`
    /// the page size is the system's. False, with an error line and no segment left, on failure.
    ///
    /// A process that has a pool already keeps using that one, cut off from all others.
    bool createMemPool(ShareMemoryPool::Param* param);

    /// The pool of this process, null before either of the above succeeded.
    ShareMemoryPool* getMemPool();

    /// Drops what the first load counted; at 0 the pool is destroyed, which ends the process with
    /// a failed assertion.
    void releaseMemPool();

    ///@{
    /// In bytes; always true. Without a pool the process ends (assertion), here and in dumpInfo().
    bool getMemFreeSize(uint32_t& size);
    bool getMemSize(uint32_t& size);
    ///@}

    /// Logs the free blocks.
    void dumpInfo();

    /// Always false, with two error lines: the removal is asked for without an address, which is
    /// refused. As it stands; to remove the segments, use `ipcrm`.
    bool removeMemPool();

    /// Replaces what the local records of the allocators come from (malloc and free). A null
    /// restores the default.
    void setLocalMemory(Allocate allocate, Release release);

    /// Replaces what the segments come from. A null restores the default.
    void setSegments(SegmentGet get, SegmentRelease release);

private:
    class ORBEL_LOCAL Internal;

    ORBEL_LOCAL ShareMemoryManager();
    ORBEL_LOCAL ~ShareMemoryManager();

    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Memory
