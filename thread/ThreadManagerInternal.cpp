#include "thread/ThreadManagerInternal.h"

#include <pthread.h>

#include <cstdio>

#include "Vantel/Orbel/ProcessServices.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "frame/base/ThreadId.h"
#include "thread/ThreadInternal.h"

namespace Vantel::Orbel {

ThreadManagerInternal* ThreadManagerInternal::instance() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    static ThreadManagerInternal* manager = nullptr;
    pthread_once(&once, [] { manager = new ThreadManagerInternal; });
    return manager;
}

ThreadManagerInternal::ThreadManagerInternal() : mCpuCount(getCpuNum()) {}

void ThreadManagerInternal::addThread(ThreadInternal* thread) {
    Guard<CMutex> guard(mMutex);
    thread->prev = nullptr;
    thread->next = mHead;
    if (mHead != nullptr) {
        mHead->prev = thread;
    }
    mHead = thread;
}

void ThreadManagerInternal::removeThread(ThreadInternal* thread) {
    Guard<CMutex> guard(mMutex);
    if (thread->next != nullptr) {
        thread->next->prev = thread->prev;
    }
    if (thread->prev != nullptr) {
        thread->prev->next = thread->next;
    } else {
        mHead = thread->next;
    }
    thread->prev = thread->next = nullptr;
}

ThreadInternal* ThreadManagerInternal::find(int tid) const {
    ThreadInternal* thread = mHead;
    while (thread != nullptr && thread->tid != tid) {
        thread = thread->next;
    }
    return thread;
}

ThreadInternal* ThreadManagerInternal::getThread(int tid) {
    Guard<CMutex> guard(mMutex);
    return find(tid);
}

bool ThreadManagerInternal::getThreadNameById(int tid, std::string& name) {
    Guard<CMutex> guard(mMutex);
    ThreadInternal* thread = find(tid);
    if (thread == nullptr) {
        return false;
    }
    Guard<CMutex> threadGuard(thread->mutex);
    name = thread->name;
    return true;
}

bool ThreadManagerInternal::getTimeoutThreadName(std::vector<std::string>& names) {
    names.clear();
    Guard<CMutex> guard(mMutex);
    for (ThreadInternal* thread = mHead; thread != nullptr; thread = thread->next) {
        Guard<CMutex> threadGuard(thread->mutex);
        if (thread->deadlinePassed()) {
            names.push_back(std::string(thread->name) + "(" + std::to_string(thread->tid) + ")");
        }
    }
    return !names.empty();
}

void ThreadManagerInternal::registerMainThread() {
    mMainThreadId = currentThreadId();
}

std::vector<std::string> ThreadManagerInternal::rows() {
    std::vector<std::string> rows;
    Guard<CMutex> guard(mMutex);
    for (ThreadInternal* thread = mHead; thread != nullptr; thread = thread->next) {
        Guard<CMutex> threadGuard(thread->mutex);
        char row[128];
        std::snprintf(row, sizeof row, "%24s   %8d  %3d  %s\n", thread->name, thread->tid.load(),
                      thread->priority, thread->deadlinePassed() ? "Timeout" : "Normal");
        rows.emplace_back(row);
    }
    return rows;
}

void ThreadManagerInternal::dumpThreads() {
    const std::vector<std::string> threads = rows();
    ORBEL_LOG_INFO(" threads:\n");
    ORBEL_LOG_INFO("                name            tid  prior state\n");
    ORBEL_LOG_INFO(" _______________________________________________________\n");
    // Both the format and the argument end the line, on purpose.
    ORBEL_LOG_INFO(" %24s   %8d  %3d  %s\n", "main", mMainThreadId.load(), 64, "normal\n");
    for (const std::string& row : threads) {
        ORBEL_LOG_INFO(" %s", row.c_str());
    }
    ORBEL_LOG_INFO(" \n");
}

}  // namespace Vantel::Orbel
