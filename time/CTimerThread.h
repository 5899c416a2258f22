#pragma once

#include <cstdint>
#include <memory>

#include "Vantel/Orbel/CSemaphore.h"
#include "Vantel/Orbel/CThread.h"
#include "time/TimerInternal.h"

namespace Vantel::Orbel {

class TimerManagerInternal;

/// A pooled thread: runs one callback for each post of its semaphore and goes back to the pool.
/// All fields but the semaphore belong to the manager's mutex, and, from a post until the thread
/// gives itself back, `proc` and `param` to the thread.
class CTimerThread : public CThread {
public:
    explicit CTimerThread(TimerManagerInternal& manager);
    ~CTimerThread() override;

    /// Lets a waiting thread leave threadProc().
    void cancel();

    uint64_t param = 0;
    std::shared_ptr<const TimerProc> proc;
    CSemaphore semaphore{0};
    CTimerThread* nextIdle = nullptr;
    TimerInternal* timer = nullptr;  // null again when the timer is destroyed during the run

private:
    void threadProc() override;
    /// The time in microseconds if the timer keeps statistics, else 0.
    uint64_t runBegin();
    void runEnd(uint64_t beganUs);

    TimerManagerInternal& mManager;
    bool mCancelled = false;  // the post behind it is what makes it visible
};

}  // namespace Vantel::Orbel
