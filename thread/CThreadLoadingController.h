#pragma once

#include <pthread.h>

#include <cstdint>
#include <map>

#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CThread.h"

namespace Vantel::Orbel {

/// Throttles threads: each tick of a millisecond it lets a thread run or sends it SIGUSR2, whose
/// handler sleeps for one. Its own thread runs as long as there is somebody to throttle.
///
/// Lock order: mLifeMutex, which keeps starting and stopping the thread in step with the table,
/// then mMutex, which guards the table. The thread takes only the second, so that it can be waited
/// for under the first.
class CThreadLoadingController : public CThread {
public:
    /// What CThread::load does for the calling thread; `percent` is 1 to 100. A thread that ends
    /// takes itself out.
    static void loadCurrentThread(uint32_t percent);

    void addThread(pthread_t tid, uint32_t runShare, uint32_t sleepShare);
    void removeThread(pthread_t tid);

    /// Made at first use, which claims SIGUSR2; never destroyed.
    static CThreadLoadingController* instance();

protected:
    void threadProc() override;

private:
    struct Record {
        uint32_t runShare;
        uint32_t sleepShare;
        uint32_t ran;
        uint32_t slept;
    };

    CThreadLoadingController();
    static void tick(pthread_t tid, Record& record);

    CMutex mLifeMutex;
    CMutex mMutex;
    std::map<pthread_t, Record> mRecords;
};

}  // namespace Vantel::Orbel
