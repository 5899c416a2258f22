#pragma once

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <ctime>

namespace Vantel::Orbel {

/// While it lives, a write of this thread to a pipe without a reader fails with EPIPE and raises no
/// SIGPIPE, whatever the process does with that signal: it is blocked in the thread, and one that
/// came up is taken back. Leaves errno alone.
class BlockSigPipe {
public:
    BlockSigPipe() {
        sigset_t pending;
        sigemptyset(&mSigPipe);
        sigaddset(&mSigPipe, SIGPIPE);
        sigpending(&pending);
        mWasPending = sigismember(&pending, SIGPIPE) == 1;  // that one is somebody else's
        pthread_sigmask(SIG_BLOCK, &mSigPipe, &mOldMask);
    }
    BlockSigPipe(const BlockSigPipe&) = delete;
    BlockSigPipe& operator=(const BlockSigPipe&) = delete;
    ~BlockSigPipe() {
        const int error = errno;
        if (!mWasPending && error == EPIPE) {
            const timespec noWait{0, 0};
            while (sigtimedwait(&mSigPipe, nullptr, &noWait) == -1 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &mOldMask, nullptr);
        errno = error;
    }

private:
    sigset_t mSigPipe;
    sigset_t mOldMask;
    bool mWasPending = false;
};

}  // namespace Vantel::Orbel
