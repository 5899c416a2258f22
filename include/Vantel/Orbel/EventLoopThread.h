#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class EventLoop;

/// Runs in a new loop thread, before the loop begins.
using ThreadInitCallback = std::function<void(EventLoop*)>;

/// One EventLoop in a thread of its own.
///
/// Threads: startLoop, stop and setSchedulePolicy by the owner of the object, one at a time; stop
/// also in the loop's own thread. The queries from any thread.
class ORBEL_API EventLoopThread {
public:
    /// `name` is the thread's; an empty one becomes "EventLoopThread". `callback` may be empty;
    /// what it throws is logged, and the loop runs nevertheless.
    EventLoopThread(const ThreadInitCallback& callback, const std::string& name);
    EventLoopThread(const EventLoopThread&) = delete;
    EventLoopThread& operator=(const EventLoopThread&) = delete;
    /// Stops a running loop. In the loop's own thread, which cannot wait for itself, the rest is
    /// left to a helper thread.
    ~EventLoopThread();

    /// Starts the thread and returns its loop, which lives until the thread ends. Null if the
    /// thread could not start or ended at once. Asserts that the thread is not running.
    EventLoop* startLoop();

    /// Ends the loop and waits for the thread. In the loop's own thread it only asks the loop to
    /// quit, and warns. Does nothing if not running.
    void stop();

    /// Takes effect with the next startLoop(); asserts that the thread is not running. `priority`
    /// 1 (highest) to 127, 0 or less keeps it at 64; `realtime` is first-in-first-out scheduling,
    /// which may need a privilege; `cpuCore` below 0 binds to none.
    void setSchedulePolicy(bool realtime, int32_t priority, int32_t cpuCore);

    /// The loop, or null while there is none.
    EventLoop* getLoop() const;
    /// From startLoop() until the loop has ended, by stop() or by itself.
    bool isRunning() const;
    /// As given to the constructor, also where that was empty.
    const std::string& name() const;

private:
    class ORBEL_LOCAL Internal;

    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Orbel
