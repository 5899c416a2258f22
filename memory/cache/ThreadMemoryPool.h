#pragma once

#include "Vantel/Memory/IMemoryPool.h"

namespace Vantel::Memory {

/// The thread-caching pool itself.
class ThreadMemoryPool final : public IMemoryPool {
public:
    void* allocate(size_t sizeBytes) override;
    void deallocate(void* block) override;
    void* reallocate(void* block, size_t sizeBytes) override;

private:
    static void* allocateSlowly(size_t sizeBytes);
    static void deallocateSlowly(void* block);
};

}  // namespace Vantel::Memory
