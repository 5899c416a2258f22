#pragma once

#include <semaphore.h>

#include <ctime>

#include "frame/base/Assert.h"
#include "frame/base/RetryOnEintr.h"

namespace Vantel::Orbel {

/// Owner of a POSIX unnamed semaphore of this process; starts at 0. Signals end no wait.
class SysSemaphore {
public:
    SysSemaphore() {
        const int rc = sem_init(&mSemaphore, 0, 0);
        ORBEL_ASSERT(rc == 0);
    }
    SysSemaphore(const SysSemaphore&) = delete;
    SysSemaphore& operator=(const SysSemaphore&) = delete;
    ~SysSemaphore() { sem_destroy(&mSemaphore); }

    bool wait() {
        return retryOnEintr([this] { return sem_wait(&mSemaphore); }) == 0;
    }
    /// Until `deadline` on CLOCK_MONOTONIC.
    bool waitUntil(const timespec& deadline) {
        return retryOnEintr(
                   [&] { return sem_clockwait(&mSemaphore, CLOCK_MONOTONIC, &deadline); }) == 0;
    }
    bool tryWait() {
        return retryOnEintr([this] { return sem_trywait(&mSemaphore); }) == 0;
    }
    void post() { sem_post(&mSemaphore); }

private:
    sem_t mSemaphore;
};

}  // namespace Vantel::Orbel
