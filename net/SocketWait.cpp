#include <poll.h>

#include <cerrno>

#include "Vantel/Orbel/Socket.h"
#include "frame/base/RetryOnEintr.h"
#include "net/SocketError.h"

namespace Vantel::Orbel {

bool Socket::waitEvent(int events, int timeoutMs, int* revents) const {
    if (mFd < 0) {
        return refuse(EBADF);
    }
    const int wanted = events & (kReadEvent | kWriteEvent);
    if (timeoutMs < -1 || wanted == 0) {
        return refuse(EINVAL);
    }
    pollfd polled{mFd, 0, 0};
    polled.events = static_cast<short>(((wanted & kReadEvent) != 0 ? POLLIN : 0) |
                                       ((wanted & kWriteEvent) != 0 ? POLLOUT : 0));
    const int count = retryOnEintr([&] { return ::poll(&polled, 1, timeoutMs); });
    if (count < 0) {
        return false;
    }
    const int came = ((polled.revents & POLLIN) != 0 ? kReadEvent : 0) |
                     ((polled.revents & POLLOUT) != 0 ? kWriteEvent : 0);
    if (revents != nullptr) {
        *revents = came;
    }
    if (count == 0) {
        return refuse(ETIMEDOUT);
    }
    if ((came & wanted) != 0) {
        return true;
    }
    if ((polled.revents & POLLNVAL) != 0) {
        return refuse(EBADF);
    }
    if ((polled.revents & (POLLERR | POLLHUP)) != 0) {
        const int error = getSocketError();
        return refuse(error != 0 ? error : EPIPE);
    }
    return refuse(EAGAIN);
}

bool Socket::waitReadable(int timeoutMs, int* revents) const {
    return waitEvent(kReadEvent, timeoutMs, revents);
}

bool Socket::waitWritable(int timeoutMs, int* revents) const {
    return waitEvent(kWriteEvent, timeoutMs, revents);
}

}  // namespace Vantel::Orbel
