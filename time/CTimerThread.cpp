#include "time/CTimerThread.h"

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "time/TimerManagerInternal.h"

namespace Vantel::Orbel {

namespace {

constexpr const char* kIdleName = "[Pooled]";

}  // namespace

CTimerThread::CTimerThread(TimerManagerInternal& manager)
    : CThread(kIdleName, 64, 0, 0), mManager(manager) {
    ORBEL_LOG_TRACE("create timer threading....\n");
}

CTimerThread::~CTimerThread() {
    ORBEL_LOG_TRACE("destroy timer threading....\n");
}

void CTimerThread::cancel() {
    mCancelled = true;
    semaphore.post(0);
}

void CTimerThread::threadProc() {
    while (looping()) {
        semaphore.pend();
        if (mCancelled) {
            return;
        }
        const uint64_t beganUs = runBegin();
        (*proc)(param);
        setTimeout(0);
        setThreadName(kIdleName);
        runEnd(beganUs);
        mManager.giveBack(this);
    }
}

uint64_t CTimerThread::runBegin() {
    Guard<CRecursiveMutex> guard(mManager.mutex);
    return timer != nullptr && timer->stat ? CTime::getCurrentMicroSecond() : 0;
}

void CTimerThread::runEnd(uint64_t beganUs) {
    Guard<CRecursiveMutex> guard(mManager.mutex);
    proc.reset();
    if (timer == nullptr) {
        return;
    }
    if (timer->stat && beganUs != 0) {
        timer->usedUs += CTime::getCurrentMicroSecond() - beganUs;
    }
    timer->thread = nullptr;
    timer = nullptr;
}

}  // namespace Vantel::Orbel
