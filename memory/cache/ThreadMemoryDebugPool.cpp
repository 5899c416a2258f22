#include "memory/cache/ThreadMemoryDebugPool.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "frame/base/Log.h"

namespace Vantel::Memory {

namespace {

// In memory: the size (u32), the magic, the data, the magic. The last one may lie at any address.
constexpr uint32_t kMagic = 0x4349474D;  // "MGIC"
constexpr size_t kHeader = 8;
constexpr size_t kGuards = kHeader + sizeof kMagic;
constexpr size_t kLargest = std::numeric_limits<uint32_t>::max();

bool isMagic(const char* at) {
    return std::memcmp(at, &kMagic, sizeof kMagic) == 0;
}

}  // namespace

void* ThreadMemoryDebugPool::allocate(size_t size) {
    size = std::max<size_t>(size, 1);
    return size > kLargest ? nullptr : dress(mPool.allocate(size + kGuards), size);
}

void ThreadMemoryDebugPool::deallocate(void* block) {
    if (block != nullptr) {
        mPool.deallocate(undress(block));
    }
}

void* ThreadMemoryDebugPool::reallocate(void* block, size_t size) {
    if (block == nullptr) {
        return allocate(size);
    }
    void* memory = undress(block);
    return size > kLargest ? nullptr
                           : dress(mPool.reallocate(memory, size == 0 ? 0 : size + kGuards), size);
}

/// Writes the guards of a block of `size`; its data.
void* ThreadMemoryDebugPool::dress(void* memory, size_t size) {
    if (memory == nullptr) {
        return nullptr;
    }
    const auto length = static_cast<uint32_t>(size);
    char* at = static_cast<char*>(memory);
    std::memcpy(at, &length, sizeof length);
    std::memcpy(at + sizeof length, &kMagic, sizeof kMagic);
    std::memcpy(at + kHeader + size, &kMagic, sizeof kMagic);
    return at + kHeader;
}

/// Checks the guards of a block; where it begins.
void* ThreadMemoryDebugPool::undress(void* block) {
    char* data = static_cast<char*>(block);
    if (!isMagic(data - sizeof kMagic)) {
        ORBEL_LOG_FATAL("Memory left overrun\n");
        std::abort();
    }
    uint32_t length = 0;
    std::memcpy(&length, data - kHeader, sizeof length);
    if (!isMagic(data + length)) {
        ORBEL_LOG_FATAL("Memory right overrun\n");
        std::abort();
    }
    return data - kHeader;
}

}  // namespace Vantel::Memory
