#pragma once

#include <cstdint>

#include "Vantel/Memory/InitializeMemory.h"

namespace Vantel::Memory {

class IMemoryHandle;

/// What the process decided about its packets: the policy, and the allocator that goes with it.
/// One object, never destroyed: packets of static storage duration still free their blocks.
///
/// Threads: configure() as initializeMemory(); all else from any thread, once that is through.
class MemoryManagerInternal {
public:
    static MemoryManagerInternal& instance();

    MemoryManagerInternal(const MemoryManagerInternal&) = delete;
    MemoryManagerInternal& operator=(const MemoryManagerInternal&) = delete;

    // Straight to the handle, which must be there: asserted. The order is fixed.
    virtual uint32_t getMemorySize();
    virtual uint32_t getFreeSize();
    virtual void printNodes();
    virtual void* malloc(int size);
    virtual void free(void* block);
    virtual void* memcpy(void* to, const void* from, int size);

    /// `size` rounded up to a multiple of the alignment.
    int64_t align(int64_t size) const {
        const int64_t alignSize = mAlignSize;
        return (size + alignSize - 1) & -alignSize;
    }
    MemoryPolicy policy() const { return mPolicy; }

    /// There is an allocator: a policy that has one was decided.
    bool hasHandle() const { return mHandle != nullptr; }

    /// `alignSize` is at least 2; takes `handle` over, null with the shared policy.
    void configure(MemoryPolicy policy, int32_t alignSize, IMemoryHandle* handle);

private:
    constexpr MemoryManagerInternal() = default;
    ~MemoryManagerInternal() = default;

    IMemoryHandle& handle() const;

    int32_t mAlignSize = 2;  // packets that need no policy are aligned too
    MemoryPolicy mPolicy = policyNone;
    IMemoryHandle* mHandle = nullptr;
};

}  // namespace Vantel::Memory
