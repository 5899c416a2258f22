#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "Vantel/Orbel/CMutex.h"

namespace Vantel::Orbel {

class ThreadInternal;

/// The list of all running CThreads, the most recent first. Never destroyed: threads may outlive
/// the static objects. Threads: any; its lock comes before that of a thread.
class ThreadManagerInternal {
public:
    static ThreadManagerInternal* instance();

    void addThread(ThreadInternal* thread);
    void removeThread(ThreadInternal* thread);

    /// Null if there is none. Only the thread itself may use the result: it stays good as long as
    /// that runs, and nobody else can know how long.
    ThreadInternal* getThread(int tid);
    bool getThreadNameById(int tid, std::string& name);
    bool getTimeoutThreadName(std::vector<std::string>& names);
    bool checkCPUCoreId(int core) const { return core >= 0 && core < mCpuCount; }
    void registerMainThread();
    void dumpThreads();

private:
    ThreadManagerInternal();

    /// The lock is held.
    ThreadInternal* find(int tid) const;
    std::vector<std::string> rows();

    ThreadInternal* mHead = nullptr;
    CMutex mMutex;
    std::atomic<int> mMainThreadId{-1};
    const int mCpuCount;
};

}  // namespace Vantel::Orbel
