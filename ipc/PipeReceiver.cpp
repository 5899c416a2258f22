#include "ipc/PipeReceiver.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "frame/base/Log.h"
#include "frame/base/UniqueFd.h"

namespace Vantel::Orbel {

PipeReceiver::PipeReceiver() {
    std::memset(mHeaders, 0, sizeof mHeaders);
    for (unsigned int i = 0; i < kBatch; ++i) {
        mVectors[i].iov_len = sizeof(PipeMessage);
        msghdr& header = mHeaders[i].msg_hdr;
        header.msg_iov = &mVectors[i];
        header.msg_iovlen = 1;
        provideControl(header, mControls[i], 1);
    }
}

int PipeReceiver::receive(int fd, PipeMessage* messages, unsigned int count) {
    if (messages == nullptr || count == 0) {
        errno = EINVAL;
        return -1;
    }
    for (unsigned int i = 0; i < std::min(count, kBatch); ++i) {
        mVectors[i].iov_base = &messages[i];
    }
    const int received = recvmmsg(fd, mHeaders, std::min(count, kBatch), MSG_DONTWAIT, nullptr);
    if (received < 1) {
        return received;
    }
    const int good = checkBatch(messages, received);
    for (int i = 0; i < received; ++i) {
        if (good < 0) {
            UniqueFd dropped(std::exchange(messages[i].fd, -1));
        }
        provideControl(mHeaders[i].msg_hdr, mControls[i], 1);  // the kernel stored what it used
    }
    return good;
}

/// Puts each message's descriptor in place. How many messages are good, 0 at the end of the stream,
/// or -1 with errno if one of them is not.
int PipeReceiver::checkBatch(PipeMessage* messages, int received) {
    for (int i = 0; i < received; ++i) {
        messages[i].fd = takeFirstDescriptor(mHeaders[i].msg_hdr);
    }
    for (int i = 0; i < received; ++i) {
        const mmsghdr& header = mHeaders[i];
        if ((header.msg_hdr.msg_flags & MSG_CTRUNC) != 0) {
            ORBEL_LOG_WARN(" recvMessage: msg[%d] control data truncated\n", i);
            errno = EMSGSIZE;
            return -1;
        }
        if (header.msg_len == 0) {
            return i;  // end of the stream: it fills the rest of the batch with empty messages
        }
        if (header.msg_len != sizeof(PipeMessage)) {
            ORBEL_LOG_WARN(" recvMessage: msg[%d] incomplete, got %u expect %zu\n", i,
                           header.msg_len, sizeof(PipeMessage));
            errno = EIO;
            return -1;
        }
    }
    return received;
}

}  // namespace Vantel::Orbel
