#pragma once

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// One sample: a block of shared memory with its payload, its extra data and, if one goes with it,
/// a file descriptor. Made by SharedMemWriteChannel::allocate() and by a read channel for its
/// callback; held by shared pointer. The block belongs to its holders until the last copy of the
/// pointer is gone, on whichever thread that happens. It stays readable as long as that, even after
/// the channel is closed and the domain is left.
///
/// Threads: one at a time. A pointer may travel between threads with the usual hand-over.
class ORBEL_API SharedMemBuffer {
public:
    virtual ~SharedMemBuffer() = default;

    /// The descriptor that goes with the sample, -1 without one. A reader's buffer owns it and
    /// closes it at its end; a writer's buffer does not, it remains the caller's.
    virtual int fd() const = 0;

    /// Returns the descriptor and gives up ownership: fd() is -1 from here on.
    virtual int detachFd() = 0;

    /// Stores a descriptor that commit() shall send to every reader; returns it.
    virtual int fd(int descriptor) = 0;

    /// The payload; capacity() bytes.
    virtual void* data() = 0;

    /// Payload bytes in use.
    virtual unsigned int size() const = 0;

    /// Payload bytes of the block: the pool's block size.
    virtual unsigned int capacity() const = 0;

    /// Sets size(). False, with nothing changed, above capacity() and always for a reader.
    virtual bool resize(unsigned int sizeBytes) = 0;

    /// The extra data, which lie beside the block's header; extraDataCapacity() bytes.
    virtual void* extraData() = 0;

    /// Extra-data bytes in use.
    virtual unsigned int extraDataSize() const = 0;

    /// Extra-data bytes of the block: the pool's extra size.
    virtual unsigned int extraDataCapacity() const = 0;

    /// Sets extraDataSize(). False, with nothing changed, above the capacity and for a reader.
    virtual bool resizeExtraData(unsigned int sizeBytes) = 0;

    /// The channel that the buffer was made for.
    virtual unsigned long channelId() const = 0;

    /// Index of the block in its pool.
    virtual unsigned int blockIndex() const = 0;

    /// Microseconds since boot, as CTime::getCurrentMicroSecond(): when the block was allocated,
    /// then when the sample was committed, then when a reader last let go of it, which another
    /// reader may have done before this one's callback runs. Read anew at each call.
    virtual unsigned long timestamp() const = 0;

    /// Raises the block's count on this side (writers or readers); returns the new value.
    virtual unsigned int incReference() = 0;

    /// Lowers it, never below 0; returns the new value. Gives no block back by itself.
    virtual unsigned int decReference() = 0;
};

}  // namespace Vantel::Orbel
