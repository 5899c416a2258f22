#include "ipc/PipeReceiver.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "frame/base/Log.h"
#include "frame/base/UniqueFd.h"

namespace Vantel::Orbel {

namespace {

int refuseTruncated(unsigned int index) {
    ORBEL_LOG_WARN(" recvMessage: msg[%d] control data truncated\n", static_cast<int>(index));
    errno = EMSGSIZE;
    return -1;
}

int refuseShort(unsigned int index, size_t length) {
    ORBEL_LOG_WARN(" recvMessage: msg[%d] incomplete, got %u expect %zu\n", static_cast<int>(index),
                   static_cast<unsigned int>(length), sizeof(PipeMessage));
    errno = EIO;
    return -1;
}

}  // namespace

PipeReceiver::PipeReceiver() {
    std::memset(&mPlainHeader, 0, sizeof mPlainHeader);
    mPlainHeader.msg_iov = &mPlainVector;
    mPlainHeader.msg_iovlen = 1;
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
    count = std::min(count, kBatch);
    int received = receivePlain(fd, messages, count);
    if (received < 1) {
        return received;
    }
    const auto first = static_cast<unsigned int>(received);
    if (messages[first - 1].fd >= 0 && first < count) {
        const int more = receiveEach(fd, messages, first, count);
        if (more > 0) {
            received += more;
        } else if (more < 0 && errno != EAGAIN) {
            for (unsigned int i = 0; i < first; ++i) {
                UniqueFd dropped(std::exchange(messages[i].fd, -1));
            }
            return -1;
        }
    }
    return received;
}

/// The usual way, in one cheap call: the kernel puts the records of a stream together as long as
/// they carry no descriptor, and stops behind one that does.
int PipeReceiver::receivePlain(int fd, PipeMessage* messages, unsigned int count) {
    mPlainVector = {messages, count * sizeof *messages};
    provideControl(mPlainHeader, mControls[0], 1);
    const ssize_t bytes = recvmsg(fd, &mPlainHeader, MSG_DONTWAIT);
    if (bytes < 1) {
        return static_cast<int>(bytes);
    }
    const auto length = static_cast<size_t>(bytes);
    const auto whole = static_cast<unsigned int>(length / sizeof *messages);
    const auto last = static_cast<unsigned int>((length - 1) / sizeof *messages);
    for (unsigned int i = 0; i <= last; ++i) {
        messages[i].fd = -1;
    }
    UniqueFd descriptor(takeFirstDescriptor(mPlainHeader));
    if ((mPlainHeader.msg_flags & MSG_CTRUNC) != 0) {
        return refuseTruncated(last);
    }
    if (length % sizeof *messages != 0) {
        return refuseShort(last, length % sizeof *messages);
    }
    messages[last].fd = descriptor.release();
    return static_cast<int>(whole);
}

/// Where descriptors travel: each message with its own room for one. Fills messages from `first`.
int PipeReceiver::receiveEach(int fd, PipeMessage* messages, unsigned int first,
                              unsigned int count) {
    const unsigned int room = count - first;
    for (unsigned int i = 0; i < room; ++i) {
        mVectors[i].iov_base = &messages[first + i];
        provideControl(mHeaders[i].msg_hdr, mControls[i], 1);  // the kernel stores what it used
    }
    const int received = recvmmsg(fd, mHeaders, room, MSG_DONTWAIT, nullptr);
    if (received < 1) {
        return received;
    }
    const int good = checkBatch(messages, first, received);
    for (int i = 0; i < received && good < 0; ++i) {
        UniqueFd dropped(std::exchange(messages[first + static_cast<unsigned int>(i)].fd, -1));
    }
    return good;
}

/// Puts each message's descriptor in place. How many messages are good, 0 at the end of the stream,
/// or -1 with errno if one of them is not.
int PipeReceiver::checkBatch(PipeMessage* messages, unsigned int first, int received) {
    for (int i = 0; i < received; ++i) {
        messages[first + static_cast<unsigned int>(i)].fd =
            takeFirstDescriptor(mHeaders[i].msg_hdr);
    }
    for (int i = 0; i < received; ++i) {
        const mmsghdr& header = mHeaders[i];
        const unsigned int index = first + static_cast<unsigned int>(i);
        if ((header.msg_hdr.msg_flags & MSG_CTRUNC) != 0) {
            return refuseTruncated(index);
        }
        if (header.msg_len == 0) {
            return i;  // end of the stream: it fills the rest of the batch with empty messages
        }
        if (header.msg_len != sizeof(PipeMessage)) {
            return refuseShort(index, header.msg_len);
        }
    }
    return received;
}

}  // namespace Vantel::Orbel
