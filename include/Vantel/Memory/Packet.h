#pragma once

#include <cstddef>
#include <cstdint>

#include "Vantel/Export.h"
#include "Vantel/Orbel/TDelegate.h"

namespace Vantel::Memory {

class MemoryInternal;

/// A handle on a reference-counted block of payload with optional extra data. Copies share the
/// block; the last one frees it by the policy of the process (see InitializeMemory.h).
///
/// Sizes are in bytes, from 0; a negative one, or one whose allocation with the record does not fit
/// in an int, makes an invalid packet and an error line. No memory for a new block ends the
/// process, by design.
///
/// Threads: copies of one packet may be used, and go, on different threads: the count is atomic.
/// One Packet object, and the payload and sizes that its copies share, are the callers' to guard.
class ORBEL_API Packet {
public:
    /// Called when a block goes that the library did not allocate.
    using FreeFunction = Orbel::TDelegate<void, void*, unsigned long, unsigned char*>;

    /// An invalid packet.
    Packet();

    /// Shares the block of `other`.
    Packet(const Packet& other);

    /// A new block of uninitialised memory; invalid before initializeMemory(). Its size() is
    /// `size` at once (0 with the shared policy), its capacity() that or a little more.
    Packet(int size, int extraSize);

    /// A part of `other` without a copy, which keeps its block alive, with extra data of its own:
    /// `offset` must lie below other.size(), and `offset + size` within it. An invalid packet with
    /// an error line otherwise, and if there is no memory. Not with the shared policy: invalid,
    /// and the thread's last error is 10.
    Packet(const Packet& other, int offset, int size, int extraSize);

    ///@{
    /// Wraps `buffer` of the caller. When the block goes, `freeFn` (may be empty) gets the buffer,
    /// its size() and the extra data. Each packet may be the last: any thread may call it.
    Packet(void* buffer, int size, FreeFunction freeFn);
    Packet(void* buffer, int size, int extraSize, FreeFunction freeFn);
    ///@}

    /// A block whose buffer is named later, by putBuffer(). When the block goes, and if it was
    /// named, `freeFn` (may be empty) gets `context`, the capacity and the extra data. With the
    /// shared policy the same as Packet(size, extraSize).
    Packet(int size, FreeFunction freeFn, void* context, int extraSize);

    virtual ~Packet();

    /// Lets go of its own block and shares that of `other`.
    Packet& operator=(const Packet& other);

    /// Lets go of the block: an invalid packet remains.
    void reset();

    /// Whether there is a block, with or without a buffer.
    bool valid() const;

    /// Appends up to `size` bytes behind size(), as far as capacity() goes; returns how many. Note
    /// that a new packet counts as full: resize(0) comes first. A deferred packet takes `data` as
    /// its buffer instead, with `size`, without a copy. 0 for an invalid packet.
    int putBuffer(void* data, int size);

    /// The payload, which lives as long as any packet on the block. Null for an invalid packet, and
    /// where there is no buffer.
    uint8_t* getBuffer() const;

    ///@{
    /// Bytes in use, and those there are; 0 for an invalid packet.
    int size() const;
    int capacity() const;
    ///@}

    /// Sets the bytes in use; false, with nothing changed, above capacity() or for an invalid
    /// packet.
    bool resize(size_t size);

    ///@{
    /// The extra data and their bytes; null and 0 if there are none.
    void* getExtraData() const;
    int getExtraSize() const;
    ///@}

private:
    friend class NormalMemoryInternal;

    MemoryInternal* mInternal;  // null in an invalid packet
};

}  // namespace Vantel::Memory
