#pragma once

#include <cerrno>

#include "Vantel/Orbel/CProcessMutex.h"

namespace Vantel::Orbel {

/// Holds a CProcessMutex for the length of a scope; ask held(). Its semop is not restarted after a
/// signal handler, so enter() is tried again on EINTR: a segment set up without the lock could be
/// set up twice.
class ProcessLock {
public:
    explicit ProcessLock(CProcessMutex& mutex) : mMutex(mutex) {
        do {
            errno = 0;
            mHeld = mMutex.enter();
        } while (!mHeld && errno == EINTR);
    }
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;
    ~ProcessLock() {
        if (mHeld) {
            mMutex.leave();
        }
    }

    bool held() const { return mHeld; }

private:
    CProcessMutex& mMutex;
    bool mHeld = false;
};

}  // namespace Vantel::Orbel
