#pragma once

#include <cstddef>

#include "Vantel/Export.h"

namespace Vantel::Memory {

/// The general allocator of the library: a cache per thread, spans of equal objects behind it, and
/// pages from the system behind those.
///
/// Read from the environment when the library is loaded, as decimal numbers:
///     MEMORY_PAGE_LIMITED         no more pages (4096 bytes) are mapped once more than this many
///                                 are; tested before a mapping, which may thus overshoot. 0: none.
///     MEMORY_PAGE_FREE_THRESHOLD  free pages that are kept before whole regions go back (256).
/// With VANTELOS_MEMORY_DEBUG set when instance() is first called, each block carries guard words,
/// which are checked when it is given back or resized.
///
/// A pointer that this pool never handed out is a fatal log line and the end of the process.
///
/// Threads: all methods from any thread; a block may be given back by another thread than the one
/// that asked for it. Not usable once the library's own statics are destroyed at exit.
class ORBEL_API IMemoryPool {
public:
    /// The pool of the process, chosen at the first call and never destroyed.
    static IMemoryPool* instance();

    /// `sizeBytes` of memory, uninitialised, aligned to 8 bytes (with the guard words too); 0
    /// counts as 1. Null if the system or the page limit refuses.
    virtual void* allocate(size_t sizeBytes) = 0;

    /// Gives a block back. Null is ignored.
    virtual void deallocate(void* block) = 0;

    /// Resizes a block, keeping what fits of its bytes, in place or by a move. A null `block` is
    /// an allocation; `sizeBytes` 0 gives the block back and returns null. Null with the old block
    /// kept if there is no memory.
    virtual void* reallocate(void* block, size_t sizeBytes) = 0;

protected:
    ~IMemoryPool() = default;
};

}  // namespace Vantel::Memory
