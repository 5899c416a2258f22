#include "thread/ThreadInternal.h"

#include <sched.h>
#include <sys/resource.h>

#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/CTime.h"
#include "frame/base/CopyName.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "frame/base/ThreadId.h"
#include "thread/ThreadAttributes.h"
#include "thread/ThreadManagerInternal.h"

namespace Vantel::Orbel {

namespace {

const char* policyLetter(int policy) {
    return policy == 1 ? "R" : "N";
}

}  // namespace

ThreadInternal::ThreadInternal(CThread* thread, const char* threadName, int threadPriority,
                               int threadPolicy, int threadStackSize)
    : policy(threadPolicy),
      priority(threadPriority),
      stackSize(threadStackSize),
      manager(ThreadManagerInternal::instance()),
      owner(thread) {
    setName(threadName);
}

bool ThreadInternal::create() {
    Guard<CMutex> guard(mutex);
    while (!looping && exists) {  // an earlier run is on its way out
        mutex.leave();
        CThread::sleep(1);
        mutex.enter();
    }
    if (looping) {
        ORBEL_LOG_WARN(" thread %s is still running\n", name);
        return false;
    }
    tid = -1;
    deadlineMs = 0;
    looping = true;  // stays so if the start fails, on purpose
    destroying = false;
    postOnExit = true;
    while (exitSem.tryPend() == 0) {
    }
    return start();
}

/// `mutex` is held, which keeps the new thread from passing its first steps before we are done.
bool ThreadInternal::start() {
    ThreadAttributes attributes;
    if (!attributes.init() || !attributes.setStackSize(stackSize) ||
        !attributes.setSchedule(policy, priority)) {
        return false;
    }
    int error = pthread_create(&handle, attributes.get(), &threadEntry, this);
    if (error != 0) {
        ORBEL_LOG_ERROR("pthread create failed, errno=%d\n", error);
        return false;
    }
    error = pthread_detach(handle);
    if (error != 0) {
        ORBEL_LOG_ERROR("pthread detach failed, errno=%d\n", error);
        return false;
    }
    if (!attributes.destroy()) {
        return false;
    }
    exists = looping.load();
    return true;
}

void* ThreadInternal::threadEntry(void* self) {
    static_cast<ThreadInternal*>(self)->body();
    return nullptr;
}

void ThreadInternal::body() {
    char nameNow[sizeof name];
    {
        Guard<CMutex> guard(mutex);
        applySchedule();
        exists = true;
        tid = currentThreadId();
        copyName(nameNow, name);
    }
    manager->addThread(this);
    const int id = tid;
    ORBEL_LOG_DEBUG("ThreadBody Enter name = %s, id = %d, prior = %s%d, stack = %p \n", nameNow, id,
                    policyLetter(policy), priority, static_cast<void*>(nameNow));
    owner->threadProc();
    {
        Guard<CMutex> guard(mutex);  // it may go by another name now
        copyName(nameNow, name);
    }
    ORBEL_LOG_DEBUG("ThreadBody leave name = %s, id = %d \n", nameNow, id);
    manager->removeThread(this);

    const bool post = postOnExit;
    looping = false;
    if (post) {
        exitSem.post(0);
    }
    // The last touch: whoever waits for it may free the object at once. The default order is what
    // makes everything above visible to it.
    exists = false;
}

/// In the new thread, which has no more rights to ask for what the system refuses.
void ThreadInternal::applySchedule() {
    if (policy == 0) {
        setpriority(PRIO_PROCESS, 0, niceValue(priority));
    }
    if (cpuCoreId >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        if (cpuCoreId < CPU_SETSIZE) {
            CPU_SET(static_cast<size_t>(cpuCoreId), &set);
        }
        pthread_setaffinity_np(pthread_self(), sizeof set, &set);
    }
}

bool ThreadInternal::destroy() {
    {
        Guard<CMutex> guard(mutex);
        if (destroying) {
            ORBEL_LOG_WARN(" CThread::DestroyThread() thread '%s' has been destroyed!\n", name);
            return false;
        }
        if (isOver()) {
            ORBEL_LOG_WARN(" CThread::DestroyThread() thread '%s' has exited!\n", name);
            return false;
        }
        looping = false;
        destroying = true;
    }
    if (tid == currentThreadId()) {  // it cannot wait for its own end
        postOnExit = false;
        return true;
    }
    // The semaphore is the quick way; a cancelled thread doesn't post it.
    constexpr uint32_t kLookMs = 50;
    while (exists && destroying && exitSem.pend(kLookMs) < 0) {
    }
    return true;
}

bool ThreadInternal::cancel() {
    Guard<CMutex> guard(mutex);
    if (!looping) {
        ORBEL_LOG_WARN(" CThread::cancelThread() thread '%s' not exist!\n", name);
        return false;
    }
    looping = false;
    postOnExit = false;
    return true;
}

void ThreadInternal::waitUntilGone() {
    for (unsigned long long times = 1; exists; ++times) {
        CThread::sleep(1);
        if (times % 100 == 0) {
            ORBEL_LOG_DEBUG("Thread destructor function wait for thread %s over,times:%llu\n", name,
                            times);
        }
    }
}

void ThreadInternal::setName(const char* newName) {
    Guard<CMutex> guard(mutex);
    copyName(name, newName == nullptr ? "noNamed" : newName);
}

void ThreadInternal::setTimeout(int ms) {
    deadlineMs = ms == 0 ? 0 : CTime::getCurrentMilliSecond() + static_cast<uint64_t>(ms);
}

bool ThreadInternal::deadlinePassed() const {
    const uint64_t deadline = deadlineMs;
    return deadline != 0 && deadline < CTime::getCurrentMilliSecond();
}

bool ThreadInternal::isTimeout() {
    Guard<CMutex> guard(mutex);
    return deadlinePassed();
}

bool ThreadInternal::setCore(int core) {
    if (core < 0) {
        return false;
    }
    if (!manager->checkCPUCoreId(core)) {
        ORBEL_LOG_ERROR("thread(%p) set affinity cpu core id(%d) check failed\n",
                        static_cast<void*>(owner), core);
        return false;
    }
    Guard<CMutex> guard(mutex);
    if (cpuCoreId >= 0) {
        ORBEL_LOG_ERROR("thread(%p) has set affinity cpu id\n", static_cast<void*>(owner));
        return false;
    }
    cpuCoreId = core;
    return true;
}

void ThreadInternal::setSchedule(int newPriority, bool realtime) {
    Guard<CMutex> guard(mutex);
    if (looping) {
        return;
    }
    if (newPriority > 0) {
        priority = newPriority;
    }
    policy = realtime ? 1 : 0;
    ORBEL_LOG_TRACE("thread:%s set schedule priority:%d,policy:%s\n", name, priority,
                    policyLetter(policy));
}

}  // namespace Vantel::Orbel
