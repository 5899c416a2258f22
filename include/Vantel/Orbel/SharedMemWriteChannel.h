#pragma once

#include <functional>
#include <memory>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class SharedMemBuffer;

/// Publishes samples: allocate() a block, fill it in place, commit() it, drop the pointer. Made by
/// SharedMemNode::newWriteChannel(); then init(), create(), any number of samples, close().
///
/// A channel has at most 8 readers. Its name must be unique on the machine (also among domains: it
/// names one status segment), holds no slash and at most 63 characters.
///
/// Threads: allocate(), commit() and getReaderCount() from any thread; the rest from one.
class ORBEL_API SharedMemWriteChannel {
public:
    /// A pool of the channel's own. With a zero blockSize or blockCount none is made, and samples
    /// come from the pools of the domain.
    struct Options {
        unsigned int blockSize = 0;   ///< payload bytes per block
        unsigned int blockCount = 0;  ///< blocks
        unsigned int extraSize = 0;   ///< extra-data bytes per block; take a multiple of 8
    };

    /// Runs when a block of this channel is given back, with its payload and its extra data, each
    /// with its size in bytes. On any thread, the domain's loop among them: it must not block for
    /// long. The result has no effect.
    using ReleaseCallback = bool(unsigned char* data, unsigned int size, unsigned char* extraData,
                                 unsigned int extraDataSize);

    virtual ~SharedMemWriteChannel() = default;

    /// Attaches the status segment of the channel; false, with the reason printed, if it cannot.
    virtual bool init() = 0;

    /// Takes the writer out of the status segment; true. Samples that are out stay valid, and are
    /// given back as long as the channel object lives.
    virtual bool close() = 0;

    /// A hash of the name: the same in each process, and for the readers of the channel.
    virtual unsigned long channelId() const = 0;

    /// Publishes the sample to the readers of this moment; each is told with one message, and sees
    /// the block in place. True also if there is no reader, or none could be told: the sample is
    /// then the caller's as before. False, with nothing changed, if `buffer` is null, not one of
    /// allocate(), or in flight already, the last with an error line.
    ///
    /// A reader whose socket stays full of such messages (it holds about 85) for 10 ms loses its
    /// connection, and with it the samples that were on their way. A writer that must lose nothing
    /// keeps fewer blocks than that in flight to a reader: allocate() then makes it wait instead.
    virtual bool commit(std::shared_ptr<SharedMemBuffer>& buffer) = 0;

    /// Makes the pool that `options` ask for ("<channel>_data"; failing that, an error line, and
    /// samples come from what pools there are) and registers the writer. False, with an error line,
    /// before init() or if the channel has 8 live writers. `callback` may be empty.
    virtual bool create(const Options& options, const std::function<ReleaseCallback>& callback) = 0;

    /// A new block with room for `size` and `extraSize` bytes, from the pool with the smallest
    /// blocks that fit. Null, with errno: EAGAIN, all blocks are out (try again when readers have
    /// caught up; not logged); ENOMEM, no pool fits; ENODEV, the domain is gone.
    virtual std::shared_ptr<SharedMemBuffer> allocate(unsigned int size,
                                                      unsigned int extraSize) = 0;

    /// One more handle on a block that this node already holds, from an address in its payload,
    /// which becomes the handle's data(); capacity() stays the block's, however much of it lies
    /// before that address. Null, with errno and mostly an error line: EINVAL, null or no address
    /// of a block that this node holds; ENOBUFS, more than the pool's block has; ENODEV, the domain
    /// is gone.
    virtual std::shared_ptr<SharedMemBuffer> allocate(void* data, unsigned int size,
                                                      unsigned int extraSize) = 0;

    /// Readers in the status segment, those included that died and were not cleared yet.
    virtual unsigned int getReaderCount() const = 0;
};

}  // namespace Vantel::Orbel
