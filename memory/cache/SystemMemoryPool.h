#pragma once

#include <cstdlib>

#include "Vantel/Memory/IMemoryPool.h"

namespace Vantel::Memory {

/// The pool's interface on the process heap.
class SystemMemoryPool final : public IMemoryPool {
public:
    void* allocate(size_t sizeBytes) override { return std::malloc(sizeBytes); }
    void deallocate(void* block) override { std::free(block); }
    void* reallocate(void* block, size_t sizeBytes) override {
        return std::realloc(block, sizeBytes);
    }
};

}  // namespace Vantel::Memory
