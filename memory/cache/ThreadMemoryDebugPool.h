#pragma once

#include "Vantel/Memory/IMemoryPool.h"
#include "memory/cache/ThreadMemoryPool.h"

namespace Vantel::Memory {

/// The pool with guard words around each block, checked when the block is given back or resized
/// and at no other time: a fatal log line and the end of the process if one was overwritten.
class ThreadMemoryDebugPool final : public IMemoryPool {
public:
    void* allocate(size_t sizeBytes) override;
    void deallocate(void* block) override;
    void* reallocate(void* block, size_t sizeBytes) override;

private:
    static void* dress(void* memory, size_t sizeBytes);
    static void* undress(void* block);

    ThreadMemoryPool mPool;
};

}  // namespace Vantel::Memory
