#pragma once

#include "Vantel/Export.h"
#include "Vantel/Orbel/IThreadTask.h"

namespace Vantel::Orbel {

/// A fixed set of threads that work through a bounded queue of tasks. Tasks start in the order in
/// which they were posted and run beside each other.
///
/// Threads: postTask() from any thread; the others by the owner, one at a time, and not in a task.
class ORBEL_API IThreadPool {
public:
    virtual ~IThreadPool() = default;

    /// Starts `threadCount` threads (at least 1), called "name-0", "name-1" and so on. The queue
    /// holds up to `maxQueue` + 1 tasks that wait. `reserved` is not read. With a `cpuCoreId` of 0
    /// or more all threads share that processor. Always true, also where a thread could not start;
    /// a second call changes nothing.
    virtual bool initial(int threadCount, int maxQueue, int reserved, int cpuCoreId) = 0;

    /// Deletes the tasks that wait, waits for those that run, and ends the threads. Always true.
    virtual bool deInitial() = 0;

    /// Queues a task, which the pool owns from then on, also before initial(). False if the queue
    /// is full: the task stays the caller's. A null task takes a place in the queue and does
    /// nothing.
    virtual bool postTask(IThreadTask* task) = 0;

    /// A pool called `name`; null or empty is "threadPool". The caller owns it, see destroy().
    static IThreadPool* create(const char* name);

    /// deInitial(), then deletes the pool. Null is harmless.
    static void destroy(IThreadPool* pool);
};

}  // namespace Vantel::Orbel
