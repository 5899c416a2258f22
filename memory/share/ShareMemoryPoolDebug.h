#pragma once

#include "Vantel/Memory/ShareMemoryPool.h"
#include "memory/share/GuardRecord.h"

namespace Vantel::Memory {

/// A pool whose blocks end (mode 1) or begin (mode 2) at a page that this process cannot write to:
/// the first byte out of bounds that is written faults. Reads go unnoticed, and so do other
/// processes. For direct users of malloc() and free(): a block does not start where a page does, so
/// it has no offset and cannot be described.
///
/// Threads: as the pool.
class ShareMemoryPoolDebug final : public ShareMemoryPool {
public:
    ShareMemoryPoolDebug(Buddy* buddy, MemoryRefer* refer, SmallMemory* smallMem,
                         uint32_t debugMode);

    /// `size` bytes, which stays as it is. Null for an unknown mode too.
    void* malloc(int32_t& size) override;

    /// Also takes what has no guard, such as the result of getMemory(). True in all cases.
    bool free(void* addr) override;

    /// False for what malloc() gave, also where a block of its own began before: the buddy may
    /// still have it for one.
    bool getOffset(void* buf, int32_t& offset) override;

private:
    struct Placement {
        uint8_t* guard;
        uint8_t* user;
    };

    bool place(uint8_t* raw, int32_t granted, int32_t size, Placement& placement) const;
    bool findRecord(const void* addr, GuardRecord& record) const;
    bool inData(uint64_t address, uint64_t bytes) const;

    Buddy* mBuddy;
    uint32_t mDebugMode;
};

}  // namespace Vantel::Memory
