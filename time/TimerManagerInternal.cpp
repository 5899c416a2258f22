#include "time/TimerManagerInternal.h"

#include <pthread.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Guard.h"
#include "frame/base/Require.h"
#include "time/CTimerThread.h"

namespace Vantel::Orbel {

namespace {

constexpr int kTickMs = 100;
constexpr int kTickWhenExhaustedMs = 30;
constexpr int kHangsAfterMs = 10000;

int shortTimeout(uint32_t timeoutMs) {
    return static_cast<int>(std::min<uint32_t>(timeoutMs, INT_MAX));
}

}  // namespace

TimerManagerInternal* TimerManagerInternal::instance() {
    static auto* const manager = new TimerManagerInternal;  // never deleted
    static const struct AtExit {
        AtExit() {
            pthread_atfork(nullptr, nullptr, [] { manager->forked(); });
        }
        ~AtExit() { manager->shutDown(); }
    } atExit;
    return manager;
}

TimerManagerInternal::TimerManagerInternal()
    : CThread("TimerManager", 1, 0, 0), nowMs(CTime::getCurrentMilliSecond()) {}

void TimerManagerInternal::refreshNow() {
    if (!mRunning) {
        nowMs = CTime::getCurrentMilliSecond();
    }
}

void TimerManagerInternal::insert(TimerInternal& timer) {
    TimerInternal* before = nullptr;
    TimerInternal* behind = timers;
    while (behind != nullptr && behind->nextMs < timer.nextMs) {
        before = std::exchange(behind, behind->next);
    }
    timer.prev = before;
    timer.next = behind;
    (before != nullptr ? before->next : timers) = &timer;
    if (behind != nullptr) {
        behind->prev = &timer;
    }
    timer.started = true;
    if (!mRunning) {
        mRunning = createThread();
        if (!mRunning) {
            cancelThread();  // so that the next insertion can try again
        }
    }
}

void TimerManagerInternal::remove(TimerInternal& timer) {
    if (!timer.started) {
        return;
    }
    (timer.prev != nullptr ? timer.prev->next : timers) = timer.next;
    if (timer.next != nullptr) {
        timer.next->prev = timer.prev;
    }
    timer.prev = timer.next = nullptr;
    timer.started = false;
}

void TimerManagerInternal::threadProc() {
    setCurrentThreadName("TimerManager");
    int sleepMs = kTickMs;
    do {
        CThread::sleep(sleepMs);
        Guard<CRecursiveMutex> guard(mutex);
        const uint64_t lastMs = std::exchange(nowMs, CTime::getCurrentMilliSecond());
        setTimeout(kHangsAfterMs);
        ORBEL_REQUIRE(lastMs <= nowMs, "old time > current time\n");
        if (lastMs != nowMs) {
            sleepMs = runDueTimers(sleepMs);
        }
    } while (looping());
}

int TimerManagerInternal::runDueTimers(int sleepMs) {
    while (timers != nullptr && timers->nextMs < nowMs) {  // one due just now waits for a tick
        if (poolExhausted()) {
            return kTickWhenExhaustedMs;
        }
        sleepMs = kTickMs;
        run(*timers);
    }
    return sleepMs;
}

bool TimerManagerInternal::poolExhausted() const {
    return idleLimit > 0 && threadCount >= idleLimit && idleCount < 1;
}

bool TimerManagerInternal::run(TimerInternal& timer) {
    remove(timer);
    if (timer.periodMs > 0) {
        if (timer.nextMs <= nowMs) {  // what was missed is skipped
            timer.nextMs += ((nowMs - timer.nextMs) / timer.periodMs + 1) * timer.periodMs;
        }
        insert(timer);
    } else {
        timer.called = true;
    }
    if (timer.thread != nullptr || mShutDown) {
        return false;
    }
    timer.startedMs = nowMs;
    CTimerThread* const thread = takeThread();
    if (thread == nullptr) {
        return false;
    }
    timer.thread = thread;
    thread->setThreadName(timer.name);
    thread->setTimeout(shortTimeout(timer.timeoutMs));
    thread->proc = timer.proc;
    thread->param = timer.param;
    thread->timer = &timer;
    thread->semaphore.post(0);
    return true;
}

CTimerThread* TimerManagerInternal::takeThread() {
    if (idleHead != nullptr) {
        --idleCount;
        return std::exchange(idleHead, idleHead->nextIdle);
    }
    auto thread = std::make_unique<CTimerThread>(*this);
    thread->setRunCPUCoreId(cpuCoreId);
    if (!thread->createThread()) {
        return nullptr;
    }
    ++threadCount;
    return thread.release();  // the pool's, until endThreads()
}

void TimerManagerInternal::giveBack(CTimerThread* thread) {
    ORBEL_REQUIRE(thread != nullptr, "thread is null\n");
    CTimerThread* cut = nullptr;
    {
        Guard<CRecursiveMutex> guard(mutex);
        if (mShutDown) {
            return;  // it waits for a post that never comes, until the process is gone
        }
        thread->nextIdle = std::exchange(idleHead, thread);
        ++idleCount;
        cut = cutOffIdle();
    }
    // Each of them went to the list before this thread did, so these waits form no circle.
    endThreads(cut);
}

CTimerThread* TimerManagerInternal::cutOffIdle() {
    if (idleLimit <= 0 || idleCount <= idleLimit) {
        return nullptr;
    }
    CTimerThread* last = idleHead;
    for (int kept = 1; kept < idleLimit; ++kept) {
        last = last->nextIdle;
    }
    idleCount = idleLimit;
    return std::exchange(last->nextIdle, nullptr);
}

void TimerManagerInternal::endThreads(CTimerThread* first) {
    while (first != nullptr) {
        const std::unique_ptr<CTimerThread> thread(std::exchange(first, first->nextIdle));
        thread->cancel();
        thread->destroyThread();
        --threadCount;
    }
}

void TimerManagerInternal::forked() {
    if (mRunning) {  // or nothing is lost: a process that becomes a daemon goes on with timers
        mLostThreads = true;
        mShutDown = true;
    }
}

void TimerManagerInternal::shutDown() {
    if (lostThreads()) {
        return;
    }
    bool running = false;
    CTimerThread* idle = nullptr;
    {
        Guard<CRecursiveMutex> guard(mutex);
        mShutDown = true;
        running = std::exchange(mRunning, true);  // and is not started again
        idle = std::exchange(idleHead, nullptr);
        idleCount = 0;
    }
    if (running) {
        destroyThread();
    }
    endThreads(idle);
}

void TimerManagerInternal::printTimers() {
    std::vector<std::string> rows;
    uint64_t now = 0;
    {
        Guard<CRecursiveMutex> guard(mutex);
        if (idleLimit < 1) {
            return;  // a process that never set a limit gets no list, so it is meant
        }
        now = nowMs;
        for (const TimerInternal* timer = timers; timer != nullptr; timer = timer->next) {
            const bool running = timer->thread != nullptr;
            const int runningMs = running ? static_cast<int>(nowMs - timer->startedMs) : 0;
            char row[160];
            // The head of the list names the columns otherwise; it stays so.
            std::snprintf(row, sizeof row, "%24s %11llu %11llu %6lu %6d/%6lu %s\n", timer->name,
                          static_cast<unsigned long long>(timer->nextMs),
                          static_cast<unsigned long long>(timer->usedUs / 1000),
                          static_cast<unsigned long>(timer->periodMs), runningMs,
                          static_cast<unsigned long>(timer->timeoutMs),
                          running ? "Running" : "Idle");
            rows.emplace_back(row);
        }
    }
    // Written outside of the lock: who takes log lines may use timers.
    ORBEL_LOG_INFO(" TimerManagerPool Thread count: ( %d )\n", threadCount.load());
    ORBEL_LOG_INFO(" Timers: ( %11lu Milli-Seconds Elapsed )\n", static_cast<unsigned long>(now));
    ORBEL_LOG_INFO(
        "             Name            NextTime RunningTime Period   Used/Timeout State\n");
    ORBEL_LOG_INFO(
        " ____________________________________________________________________________\n");
    for (const std::string& row : rows) {
        ORBEL_LOG_INFO(" %s", row.c_str());
    }
    ORBEL_LOG_INFO(" \n");
}

}  // namespace Vantel::Orbel
