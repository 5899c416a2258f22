#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CSemaphore.h"

namespace Vantel::Orbel {

class CThread;
class ThreadManagerInternal;

/// The implementation of CThread, and what the new thread runs on.
///
/// Lock order: the manager's lock, then `mutex`; the body takes one at a time. What is atomic is
/// also read without `mutex`: the flags by the loop of the body, by whoever holds `mutex` already,
/// and at the end, when clearing `exists` is the last touch and no lock may be held any more.
class ThreadInternal {
public:
    ThreadInternal(CThread* owner, const char* name, int priority, int policy, int stackSize);

    // The operations of CThread of the same names.
    bool create();
    bool destroy();
    bool cancel();
    void waitUntilGone();
    bool isOver() const { return !exists && !looping; }
    void setName(const char* newName);
    void setTimeout(int ms);
    bool isTimeout();
    bool setCore(int core);
    void setSchedule(int newPriority, bool realtime);

    /// `mutex` is held.
    bool deadlinePassed() const;

    pthread_t handle{};
    std::atomic<bool> exists{false};  // from the start until the very end of the body
    int policy;                       // 0 normal, 1 first-in-first-out
    int priority;                     // 1 (highest) to 127
    int stackSize;                    // bytes; 0 or less: the system's default
    std::atomic<int> tid{-1};
    int cpuCoreId = -1;
    char name[32] = {};
    ThreadInternal* prev = nullptr;  // the links belong to the manager's lock
    ThreadInternal* next = nullptr;
    CSemaphore exitSem{0};
    std::atomic<uint64_t> deadlineMs{0};  // monotonic; 0: none
    std::atomic<bool> looping{false};
    std::atomic<bool> destroying{false};
    std::atomic<bool> postOnExit{true};
    ThreadManagerInternal* const manager;
    CThread* const owner;
    CMutex mutex;

private:
    bool start();
    static void* threadEntry(void* self);
    void body();
    void applySchedule();
};

/// 1 to 127 on the library's scale to a system priority: 1 gives `max`, 127 gives `min`.
constexpr int realtimePriority(int priority, int min, int max) {
    return max - ((priority - 1) * (max - min)) / 126;
}

/// 1 to 127 on the library's scale to a nice value, -19 to 19.
constexpr int niceValue(int priority) {
    return ((priority - 1) * 38) / 126 - 19;
}

}  // namespace Vantel::Orbel
