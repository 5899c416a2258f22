#pragma once

#include "Vantel/Export.h"

namespace Vantel::Memory {

/// A byte area in three zones: a head and a tail of fixed sizes, and a body between them that
/// grows. The memory comes from IMemoryPool.
///
/// Threads: all methods but initial() from any thread; each takes the buffer's lock. A pointer
/// from getData() is good until the body grows.
class ORBEL_API Buffer {
public:
    /// The body lies between head and tail and alone grows.
    enum Zone { kHead = 0, kBody = 1, kTail = 2 };

    Buffer();
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer();

    /// Allocates `total` bytes, rounded up to the next page (a whole number of pages gets one
    /// more), with empty zones. False if the head and the tail leave no body, for a negative size,
    /// and without memory, after which the object can do nothing more.
    bool initial(int total, int headSize, int tailSize);

    /// Empties a zone. Its bytes stay.
    void resize(Zone zone);

    /// Bytes put into the zone; 0 before initial(), -1 for no zone.
    int size(Zone zone) const;

    /// Appends `size` bytes to the zone and returns `size`; -1, with nothing changed, if they do
    /// not fit (the body grows first), for null and for a size below 1.
    int putData(signed char* data, int size, Zone zone);

    /// The first byte of the zone; null before initial() and for no zone.
    signed char* getData(Zone zone) const;

    /// Bytes in all three zones; 0 before initial().
    int capacity() const;

    /// initial() succeeded.
    bool valid() const;

private:
    class ORBEL_LOCAL Internal;

    Internal* mInternal;
};

}  // namespace Vantel::Memory
