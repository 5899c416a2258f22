#pragma once

#include <cstdint>

namespace Vantel::Memory {

/// An allocator that packets can be served from. The order of the operations is fixed.
/// Threads: all methods from any thread.
class IMemoryHandle {
public:
    /// At least `size` bytes, or null. `size` may be written back.
    virtual void* malloc(int& size) = 0;
    virtual void free(void* block) = 0;
    virtual void* memcpy(void* to, const void* from, int size) = 0;
    virtual uint32_t getMemorySize() = 0;
    virtual uint32_t getFreeSize() = 0;
    virtual void printNodes() = 0;
    virtual ~IMemoryHandle() = default;
};

}  // namespace Vantel::Memory
