#pragma once

#include <cstdint>

#include "Vantel/Export.h"
#include "Vantel/Orbel/TDelegate.h"

namespace Vantel::Memory {

/// Where the blocks of packets come from; decided once in a process.
enum MemoryPolicy : int32_t {
    policyNone = 0,        ///< not decided yet; cannot be asked for
    policySystem = 1,      ///< each packet one block of MemoryOperator::malloc
    policyBuddy = 2,       ///< each packet one block of a region of fixed size
    policyBuddySplit = 3,  ///< payload in that region, extra data and the record on the heap
    policyShare = 4        ///< in the pool that processes share, see SharePacket
};

/// The allocation functions under the policies. They may be called from any thread at once.
struct MemoryOperator {
    /// Size in bytes; memory aligned to 16 bytes as that of std::malloc, or null.
    Orbel::TDelegate<void*, unsigned long> malloc;
    /// Takes back what `malloc` gave.
    Orbel::TDelegate<void, void*> free;
    /// Destination, source and bytes; the result is the destination.
    Orbel::TDelegate<void*, void*, const void*, unsigned long> memcpy;
};

/// Sizes for initializeMemory(), which checks them under every policy.
struct MemoryParameter {
    int32_t totalSize;  ///< bytes in the region of the buddy policies, a multiple of chunkSize
    int32_t
        chunkSize;  ///< its smallest block in bytes: a power of two (not checked), at least 1024
    int32_t alignSize;  ///< capacities are multiples of the power of two at or below it; at least 2
};

/// Decides the policy of the process, before its first packet. Null `op`: malloc, free and memcpy
/// of the system. Null `param`: 2 MiB in chunks of 1024, aligned to 2. Both are copied.
/// A second call changes nothing and logs a warning. An argument that cannot be (checked under
/// every policy), or no memory for the region, is a fatal log line and the end of the process.
///
/// Threads: not beside anything of this namespace.
ORBEL_API void initializeMemory(MemoryPolicy policy, MemoryOperator* op, MemoryParameter* param);

/// Does nothing: the policy and its memory stay until the process ends.
ORBEL_API void destroyMemory();

}  // namespace Vantel::Memory
