#include "Vantel/Orbel/CThread.h"

#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "frame/base/ThreadId.h"
#include "thread/CThreadLoadingController.h"
#include "thread/MonotonicTime.h"
#include "thread/ThreadInternal.h"
#include "thread/ThreadManagerInternal.h"

namespace Vantel::Orbel {

CThread::CThread(const char* name, int priority, int policy, int stackSize)
    : mInternal(new ThreadInternal(this, name, priority, policy, stackSize)) {}

CThread::~CThread() {
    if (mInternal->looping) {
        mInternal->destroy();
    }
    mInternal->waitUntilGone();
    delete mInternal;
}

bool CThread::createThread() {
    return mInternal->create();
}

bool CThread::destroyThread() {
    return mInternal->destroy();
}

bool CThread::cancelThread() {
    return mInternal->cancel();
}

bool CThread::terminateThread() {
    mInternal->destroy();
    return false;  // the thread is detached: a join would fail, or hit a stranger
}

bool CThread::looping() const {
    return mInternal->looping;
}

bool CThread::isThreadOver() {
    return mInternal->isOver();
}

const char* CThread::getThreadName() {
    return mInternal->name;
}

void CThread::setThreadName(const char* name) {
    mInternal->setName(name);
}

int CThread::getThreadId() {
    return mInternal->tid;
}

void CThread::setTimeout(int ms) {
    mInternal->setTimeout(ms);
}

void CThread::setTimeout(uint64_t ms, int now) {
    // A negative `now` widens to a huge number, on purpose: that deadline never passes.
    mInternal->deadlineMs = now == 0 ? 0 : ms + static_cast<uint64_t>(now);
}

bool CThread::isTimeout() {
    return mInternal->isTimeout();
}

bool CThread::setRunCPUCoreId(int core) {
    return mInternal->setCore(core);
}

void CThread::setSchedulePolicy(int priority, bool realtime) {
    mInternal->setSchedule(priority, realtime);
}

bool CThread::setCurrentThreadName(const char* name) {
    return name != nullptr && prctl(PR_SET_NAME, name, 0, 0, 0) == 0;
}

int CThread::getCurrentThreadId() {
    return currentThreadId();
}

bool CThread::setCurrentTimeout(int ms) {
    ThreadInternal* self = ThreadManagerInternal::instance()->getThread(currentThreadId());
    if (self == nullptr) {
        return false;
    }
    self->setTimeout(ms);
    return true;
}

void CThread::sleep(int ms) {
    if (ms < 1) {
        sched_yield();
        return;
    }
    // In microseconds, so that what remains is rounded up and the whole is never too short.
    const uint64_t startUs = CTime::getCurrentMicroSecond();
    for (int left = ms; poll(nullptr, 0, left) != 0;) {
        const int error = errno;
        const auto elapsedMs =
            static_cast<long long>((CTime::getCurrentMicroSecond() - startUs) / 1000);
        if (error != EINTR) {
            ORBEL_LOG_WARN(
                " thread sleep select time = %lld, SleepTime = %d while breaking, errormsg : %s\n",
                elapsedMs, ms, std::strerror(error));
        }
        if (elapsedMs > ms) {
            return;
        }
        left = ms - static_cast<int>(elapsedMs);
    }
}

void CThread::load(int percent) {
    ORBEL_REQUIRE(percent >= 1 && percent <= 100, "percent is out range(0~100)\n");
    CThreadLoadingController::loadCurrentThread(static_cast<uint32_t>(percent));
}

void CThread::interruptWait(uint64_t ns) {
    timespec left{static_cast<time_t>(ns / kNsPerSecond), static_cast<long>(ns % kNsPerSecond)};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace Vantel::Orbel
