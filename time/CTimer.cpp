#include "Vantel/Orbel/CTimer.h"

#include <utility>

#include "frame/base/CopyName.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "frame/base/ThreadId.h"
#include "time/CTimerThread.h"
#include "time/TimerManagerInternal.h"

namespace Vantel::Orbel {

namespace {

using TimerGuard = Guard<CRecursiveMutex>;

TimerManagerInternal& manager() {
    return *TimerManagerInternal::instance();
}

/// The mutex is held. Some other thread is in the timer's callback.
bool runsElsewhere(const TimerInternal& timer) {
    return timer.thread != nullptr && timer.thread->getThreadId() != currentThreadId();
}

/// The mutex is held. A thread that is in the callback all the same, as it destroys the timer or
/// the process exits, finds it no more.
void letGo(const TimerInternal& timer) {
    if (timer.thread != nullptr) {
        timer.thread->timer = nullptr;
    }
}

void waitForCallback(TimerInternal& timer) {
    TimerManagerInternal& all = manager();
    TimerGuard guard(all.mutex);
    for (uint64_t pass = 0; runsElsewhere(timer); ++pass) {
        char name[sizeof timer.name];
        copyName(name, timer.name);
        all.mutex.leave();
        if (pass % 500 == 0) {
            ORBEL_LOG_INFO(" CTimer::Stop '%s' wait callback exit!", name);
        }
        CThread::sleep(10);
        all.mutex.enter();
    }
}

}  // namespace

CTimer::CTimer(const char* name) : mInternal(new TimerInternal) {
    manager();  // before this object, so that it lives longer
    copyName(mInternal->name, name);
}

CTimer::~CTimer() {
    TimerInternal& timer = *mInternal;
    // Again, if the callback that is waited for starts the timer again.
    for (bool busy = !manager().lostThreads(); busy;) {
        if (!manager().isShutDown()) {
            stopAndWait();
        }
        TimerGuard guard(manager().mutex);
        busy = !manager().isShutDown() && (timer.started || runsElsewhere(timer));
        if (!busy) {
            manager().remove(timer);
            letGo(timer);
        }
    }
    delete mInternal;
}

bool CTimer::start(TDelegate<void, unsigned long> proc, uint32_t delayMs, uint32_t periodMs,
                   unsigned long param, uint32_t timeoutMs) {
    if (proc.empty()) {
        ORBEL_LOG_ERROR("timer %s: no callback\n", mInternal->name);
        return false;
    }
    TimerManagerInternal& all = manager();
    if (all.isShutDown()) {
        return false;
    }
    // Moved, so that nothing is left of it for the caller to destroy outside of the lock.
    auto shared = std::make_shared<const TimerProc>(std::move(proc));
    TimerGuard guard(all.mutex);
    TimerInternal& timer = *mInternal;
    all.remove(timer);
    all.refreshNow();
    timer.proc = std::move(shared);
    timer.nextMs = all.nowMs + delayMs;
    timer.periodMs = periodMs;
    timer.timeoutMs = timeoutMs;
    timer.param = param;
    timer.called = false;
    timer.stat = false;
    all.insert(timer);
    return delayMs != 0 || all.run(timer);
}

bool CTimer::stop(bool callNow) {
    TimerManagerInternal& all = manager();
    if (all.lostThreads()) {
        return false;
    }
    TimerGuard guard(all.mutex);
    TimerInternal& timer = *mInternal;
    const bool wasStarted = timer.started;
    all.remove(timer);
    return wasStarted && callNow && timer.periodMs == 0 ? all.run(timer) : wasStarted;
}

bool CTimer::stopAndWait() {
    stop(false);
    if (!manager().lostThreads()) {
        waitForCallback(*mInternal);
    }
    return true;
}

void CTimer::setPeriodTime(uint32_t periodMs) {
    TimerManagerInternal& all = manager();
    TimerGuard guard(all.mutex);
    TimerInternal& timer = *mInternal;
    const bool wasStarted = timer.started;
    all.remove(timer);
    const uint64_t moved = timer.nextMs + periodMs;
    timer.nextMs = moved > timer.periodMs ? moved - timer.periodMs : 0;
    timer.periodMs = periodMs;
    if (wasStarted) {
        all.insert(timer);
    }
}

void CTimer::enableStat(bool on) {
    TimerGuard guard(manager().mutex);
    mInternal->stat = on;
}

const char* CTimer::getName() const {
    return mInternal->name;
}

void CTimer::setName(const char* name) {
    TimerGuard guard(manager().mutex);
    copyName(mInternal->name, name);
}

bool CTimer::isStarted() const {
    TimerGuard guard(manager().mutex);
    return mInternal->started;
}

bool CTimer::isCalled() const {
    TimerGuard guard(manager().mutex);
    return mInternal->called;
}

bool CTimer::isRunning() const {
    TimerGuard guard(manager().mutex);
    return mInternal->thread != nullptr;
}

}  // namespace Vantel::Orbel
