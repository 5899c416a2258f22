#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Memory {

/// The allocator under the policy of the process (see InitializeMemory.h), for direct use.
///
/// Only with policies 1 to 3: before initializeMemory() and with the shared policy there is no
/// such allocator, and a call ends the process (assertion).
///
/// Threads: all methods, from any thread.
class ORBEL_API MemoryManager {
public:
    /// The same object under every policy.
    static MemoryManager* instance();

    /// Bytes under management. 0xFFFFFFFF with the system policy, which doesn't know; the thread's
    /// last error is then 14.
    uint32_t getMemorySize();

    /// The bytes of them that are free; 0xFFFFFFFF as above.
    uint32_t getFreeSize();

    /// Logs the free lists.
    void printNodes();

    /// `sizeBytes` (at least 1 with the buddy policies) of memory, uninitialised. Null if there is
    /// none. The caller gives it back with free().
    void* malloc(int sizeBytes);

    /// Copies `sizeBytes`: with the operator given to initializeMemory() if both places are in
    /// its memory, else with the system's. Returns `to`.
    void* memcpy(void* to, const void* from, int sizeBytes);

    /// Gives back what malloc() returned; null is ignored. The buddy policies trust the caller: a
    /// pointer that was never handed out, or a second free, may break the free lists.
    void free(void* block);
};

}  // namespace Vantel::Memory
