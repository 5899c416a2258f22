#include "frame/base/PipeWrite.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "frame/base/RetryOnEintr.h"

namespace Vantel::Orbel {

ssize_t pipeWrite(int fd, const void* data, size_t sizeBytes) {
    sigset_t sigPipe;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&sigPipe);
    sigaddset(&sigPipe, SIGPIPE);
    sigemptyset(&pending);
    pthread_sigmask(SIG_BLOCK, &sigPipe, &before);
    if (sigismember(&before, SIGPIPE) == 1) {
        sigpending(&pending);  // one that waits already is the caller's, and stays
    }

    const ssize_t written = retryOnEintr([&] { return ::write(fd, data, sizeBytes); });

    const int error = errno;
    if (written < 0 && error == EPIPE && sigismember(&pending, SIGPIPE) != 1) {
        const timespec noWait{0, 0};
        retryOnEintr([&] { return sigtimedwait(&sigPipe, nullptr, &noWait); });
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return written;
}

}  // namespace Vantel::Orbel
