#pragma once

#include <sys/socket.h>

#include "ipc/PipeMessage.h"
#include "net/ControlMessage.h"

namespace Vantel::Orbel {

/// Reads control messages in batches. The message headers are set up once and used again for each
/// batch: one object a thread at a time.
class PipeReceiver {
public:
    static constexpr unsigned int kBatch = 16;

    PipeReceiver();
    PipeReceiver(const PipeReceiver&) = delete;
    PipeReceiver& operator=(const PipeReceiver&) = delete;

    /// Reads up to `count` (1..16) messages that are there into `messages`, without waiting.
    /// Returns how many; 0 at the end of the stream; -1 with errno: EAGAIN, the error of the
    /// system call, EMSGSIZE if a message came with more descriptors than fit, EIO if it was cut
    /// short. After -1 no descriptor of the batch is left open.
    ///
    /// `fd` of each message is then the first descriptor that came with it, the caller's to close,
    /// or -1. Such a descriptor is not close-on-exec.
    int receive(int fd, PipeMessage* messages, unsigned int count);

private:
    int receivePlain(int fd, PipeMessage* messages, unsigned int count);
    int receiveEach(int fd, PipeMessage* messages, unsigned int first, unsigned int count);
    int checkBatch(PipeMessage* messages, unsigned int first, int received);

    /// Room for one descriptor; alignment makes it room for two, of which the second is closed.
    using Control = DescriptorControl<1>;
    static_assert(sizeof(Control) == 24);

    msghdr mPlainHeader;
    iovec mPlainVector;
    mmsghdr mHeaders[kBatch];
    iovec mVectors[kBatch];
    Control mControls[kBatch];
};

}  // namespace Vantel::Orbel
