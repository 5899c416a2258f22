#pragma once

#include <functional>

namespace Vantel::Orbel {

class EventLoop;

/// Clean-up that must not get lost with a loop that ends. It stands in the task queue like any
/// other task, in order; but what is still queued when loop() ends runs then, and what is queued
/// while the loop does not run runs in its next loop() or, at the latest, in its destructor, always
/// in the loop's thread. So an object that has a channel in the loop can be held by its clean-up
/// and die there in order.
///
/// Threads: any, as long as the loop exists.
class StopInLoop {
public:
    /// Runs `cleanup` in the thread of `loop` and waits for it: at once in that thread, else
    /// queued. What it throws reaches the caller. False if called from another thread while the
    /// loop does not run: `cleanup` has not run and never will. Hand it to queue() then, holding
    /// all that still has a channel in the loop. From a thread that the loop itself waits for, this
    /// waits for ever.
    static bool runAndWait(EventLoop& loop, const std::function<void()>& cleanup);

    /// Queues `cleanup` without waiting, whether the loop runs or not.
    static void queue(EventLoop& loop, std::function<void()> cleanup);
};

}  // namespace Vantel::Orbel
