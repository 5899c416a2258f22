#pragma once

#include "Vantel/Export.h"

namespace Vantel::Client {

/// What the main thread of a process calls: start() at its beginning, checkProcessStatus() in its
/// loop, about every 100 ms, until that says false:
///
///     IClientManager::instance()->start("camera");
///     while (IClientManager::instance()->checkProcessStatus()) {
///         CThread::sleep(50);
///     }
class ORBEL_API IClientManager {
public:
    /// Never destroyed.
    static IClientManager* instance();

    IClientManager(const IClientManager&) = delete;
    IClientManager& operator=(const IClientManager&) = delete;

    /// Makes the calling thread the main thread of the process, names it for the kernel (15
    /// characters count; null is "app"), and has SIGINT, SIGTERM and SIGTSTP end the process by way
    /// of checkProcessStatus(). True; a second call does nothing. Threads: any.
    bool start(const char* name);

    /// start() was called. Threads: any.
    bool started();

    /// Does nothing: a process ends by returning from its main loop.
    void exitProcess();

    /// False from the first call after one of the signals on: return from the main loop. Each call
    /// is a turn of IConfigManager::processEvents(), which may sleep for up to 50 ms, and drops the
    /// outdated files of IFileCache. Every 6 minutes it lists the coarse timers in the log (see
    /// CTimerManager::printTimers()), and every 2 to 3 minutes it warns of threads that are past
    /// their deadline. Threads: the main thread.
    bool checkProcessStatus();

private:
    IClientManager() = default;
};

}  // namespace Vantel::Client
