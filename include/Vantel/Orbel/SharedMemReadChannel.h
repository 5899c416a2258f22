#pragma once

#include <functional>
#include <memory>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class SharedMemBuffer;

/// Receives samples: each one committed after open() reaches the callback as a shared pointer to
/// the block itself. Keep the pointer as long as needed, on any thread; its end tells the writer
/// that this reader is done. Made by SharedMemNode::newReadChannel(); then init(), if wanted
/// setSyncMode(), open(), and close() at the end.
///
/// A reader that keeps samples is not dropped: the writer runs out of blocks. One that does not
/// even begin with a sample for 5 seconds loses that sample.
class ORBEL_API SharedMemReadChannel {
public:
    /// Gets one sample, never null. A copy of the pointer keeps it beyond the call.
    using Callback = void(std::shared_ptr<SharedMemBuffer>&);

    virtual ~SharedMemReadChannel() = default;

    /// Attaches the status segment of the channel; false, with the reason printed, if it cannot.
    virtual bool init() = 0;

    /// Unregisters the reader and destroys the callback; true. One last call of it may still be
    /// running on its thread. May be called from inside the callback. Samples in the application's
    /// hands stay valid, and are reported as long as the channel object lives.
    virtual bool close() = 0;

    /// A hash of the name: the same in each process, and for the writers of the channel.
    virtual unsigned long channelId() const = 0;

    /// Registers the reader. False, with an error line, before init() or if the channel has 8 live
    /// readers. A second open() without close() takes a second entry of the 8, which gets nothing.
    /// With an empty callback samples are taken and let go.
    ///
    /// The callback runs on the domain's one callback worker, with the samples of all read channels
    /// in order of arrival; in sync mode on the domain's loop thread.
    virtual bool open(const std::function<Callback>& callback) = 0;

    /// True: the callback runs on the domain's loop thread, which saves a hand-over; it must then
    /// not block, since it stops all control traffic of the domain in this process, and must not
    /// leave the domain. Set before open(). Always true.
    virtual bool setSyncMode(bool sync) = 0;
};

}  // namespace Vantel::Orbel
