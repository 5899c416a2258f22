#include "thread/CThreadLoadingController.h"

#include <signal.h>

#include <cerrno>

#include "frame/base/Guard.h"
#include "frame/base/Require.h"

namespace Vantel::Orbel {

namespace {

/// Takes no lock; keeps errno, since it may come between a system call and its caller.
void sleepInHandler(int) {
    const int error = errno;
    CThread::sleep(1);
    errno = error;
}

/// Whether this thread is in the controller's table. A thread that ends must not be signalled any
/// more, so the end of this takes it out.
struct Throttled {
    ~Throttled() { end(); }

    void end() {
        if (active) {
            active = false;
            CThreadLoadingController::instance()->removeThread(pthread_self());
        }
    }

    bool active = false;
};

thread_local Throttled throttled;

}  // namespace

CThreadLoadingController* CThreadLoadingController::instance() {
    static auto* const controller = new CThreadLoadingController;
    return controller;
}

CThreadLoadingController::CThreadLoadingController() : CThread("ThreadLoadingControl", 1, 1, 0) {
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = &sleepInHandler;
    action.sa_flags = SA_RESTART | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    ORBEL_REQUIRE(sigaction(SIGUSR2, &action, &old) == 0, "sigaction return error\n");
    const bool used = old.sa_handler != SIG_DFL && old.sa_handler != SIG_IGN;
    ORBEL_REQUIRE(!used, "has used\n");
}

void CThreadLoadingController::loadCurrentThread(uint32_t percent) {
    if (percent == 100) {
        throttled.end();
        return;
    }
    instance()->addThread(pthread_self(), percent, 100 - percent);
    throttled.active = true;
}

void CThreadLoadingController::addThread(pthread_t tid, uint32_t runShare, uint32_t sleepShare) {
    Guard<CMutex> life(mLifeMutex);
    {
        Guard<CMutex> guard(mMutex);
        mRecords[tid] = Record{runShare, sleepShare, 0, 0};
    }
    if (!looping()) {  // one on its way out is waited for there
        createThread();
    }
}

void CThreadLoadingController::removeThread(pthread_t tid) {
    Guard<CMutex> life(mLifeMutex);
    bool empty = false;
    {
        Guard<CMutex> guard(mMutex);
        mRecords.erase(tid);
        empty = mRecords.empty();
    }
    if (empty && looping()) {
        destroyThread();
    }
}

void CThreadLoadingController::threadProc() {
    while (looping()) {
        {
            Guard<CMutex> guard(mMutex);
            for (auto& [tid, record] : mRecords) {
                tick(tid, record);
            }
        }
        sleep(1);
    }
}

void CThreadLoadingController::tick(pthread_t tid, Record& record) {
    if (record.slept * record.runShare > record.ran * record.sleepShare) {
        ++record.ran;
    } else {
        pthread_kill(tid, SIGUSR2);
        ++record.slept;
    }
    if (record.ran == record.runShare && record.slept == record.sleepShare) {
        record.ran = record.slept = 0;
    }
}

}  // namespace Vantel::Orbel
