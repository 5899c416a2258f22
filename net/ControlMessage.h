#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "frame/base/UniqueFd.h"

/// Descriptors in the ancillary data of a message (SCM_RIGHTS, see unix(7)): built and parsed here
/// and nowhere else.
namespace Vantel::Orbel {

/// What the kernel takes with one message at most (SCM_MAX_FD).
inline constexpr size_t kMaxPassedDescriptors = 253;

/// Ancillary data with room for `Count` descriptors.
template <size_t Count>
struct alignas(cmsghdr) DescriptorControl {
    static_assert(Count >= 1 && Count <= kMaxPassedDescriptors);
    unsigned char bytes[CMSG_SPACE(Count * sizeof(int))];
};

/// Puts `count` descriptors (1..Count) into `control` and hangs it on `header`.
template <size_t Count>
void attachDescriptors(msghdr& header, DescriptorControl<Count>& control, const int* fds,
                       size_t count) {
    const size_t length = std::min(count, Count) * sizeof(int);
    header.msg_control = control.bytes;
    header.msg_controllen = CMSG_SPACE(length);
    cmsghdr* const first = CMSG_FIRSTHDR(&header);
    first->cmsg_level = SOL_SOCKET;
    first->cmsg_type = SCM_RIGHTS;
    first->cmsg_len = CMSG_LEN(length);
    std::memcpy(CMSG_DATA(first), fds, length);
}

/// Lends `header` the part of `control` that `count` descriptors (0..Count) need. Alignment may
/// leave room for one more, which then arrives as well.
template <size_t Count>
void provideControl(msghdr& header, DescriptorControl<Count>& control, size_t count) {
    if (count > 0) {
        header.msg_control = control.bytes;
        header.msg_controllen = CMSG_SPACE(std::min(count, Count) * sizeof(int));
    }
}

/// Calls `visit(int fd)` for each descriptor that came with a received message, in order. They
/// belong to the receiver, wanted or not: each must be kept or closed.
template <class Visit>
void forEachDescriptor(msghdr& header, Visit&& visit) {
    const auto* const end =
        static_cast<const unsigned char*>(header.msg_control) + header.msg_controllen;
    for (cmsghdr* at = CMSG_FIRSTHDR(&header); at != nullptr; at = CMSG_NXTHDR(&header, at)) {
        if (at->cmsg_level != SOL_SOCKET || at->cmsg_type != SCM_RIGHTS ||
            at->cmsg_len < CMSG_LEN(0)) {
            continue;
        }
        const unsigned char* const data = CMSG_DATA(at);
        const size_t length = std::min(at->cmsg_len - CMSG_LEN(0), static_cast<size_t>(end - data));
        for (size_t offset = 0; offset + sizeof(int) <= length; offset += sizeof(int)) {
            int fd = -1;
            std::memcpy(&fd, data + offset, sizeof fd);
            visit(fd);
        }
    }
}

/// Closes all descriptors that came with a received message. Keeps errno.
inline void closeDescriptors(msghdr& header) {
    forEachDescriptor(header, [](int fd) { UniqueFd dropped(fd); });
}

/// The first descriptor that came with a received message, the caller's to close, or -1; the others
/// are closed.
inline int takeFirstDescriptor(msghdr& header) {
    UniqueFd first;
    forEachDescriptor(header, [&first](int fd) {
        UniqueFd received(fd);
        if (!first.valid()) {
            first = std::move(received);
        }
    });
    return first.release();
}

}  // namespace Vantel::Orbel
