#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Vantel::Memory {

/// `pages` fresh, zeroed pages from the system; null if it refuses.
void* mapPages(size_t pages);
void unmapPages(void* address, size_t pages);

/// An environment variable as a decimal number, `missing` if it is not set.
uint32_t pagesFromEnvironment(const char* name, uint32_t missing);

/// Counts the pages that objects live in, and bounds them. The allocator's own records are mapped
/// past it: they would eat up a small limit before the first object.
class SystemMemoryAccounting {
public:
    SystemMemoryAccounting();
    static SystemMemoryAccounting& instance();

    /// Null if the system refuses, or if more pages than the limit are in use already: the limit
    /// is tested before the mapping, which may overshoot it.
    void* allocPages(size_t pages);
    void freePages(void* address, size_t pages);

    uint32_t pagesInUse() const { return mPagesInUse.load(std::memory_order_relaxed); }

private:
    const uint32_t mPageLimit;  // 0: none
    // Relaxed: a counter, nothing else is read by it.
    std::atomic<uint32_t> mPagesInUse{0};
};

}  // namespace Vantel::Memory
