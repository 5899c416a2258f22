#pragma once

#include <cstddef>
#include <new>

namespace Vantel::Memory {

/// Where the process-local records of the shared allocators (tables and their private data) come
/// from and go to. What one pair allocated must be released by the same pair.
struct LocalMemoryHooks {
    void* (*allocate)(size_t sizeBytes);
    void (*release)(void* memory);
};

/// Puts `hooks` in place and returns the pair before; a null function stands for the system's
/// malloc or free, which are there at first. Before the first table is made, by one thread.
LocalMemoryHooks exchangeLocalMemoryHooks(LocalMemoryHooks hooks);

/// Null if there is no memory.
void* localAllocate(size_t sizeBytes);
void localRelease(void* memory);

/// A record of trivial type, zeroed; null if there is no memory.
template <class Record>
Record* localRecord() {
    void* memory = localAllocate(sizeof(Record));
    return memory == nullptr ? nullptr : new (memory) Record{};
}

}  // namespace Vantel::Memory
