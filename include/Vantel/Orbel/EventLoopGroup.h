#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Vantel/Export.h"
#include "Vantel/Orbel/EventLoopThread.h"

namespace Vantel::Orbel {

/// A pool of loop threads behind a base loop. Without threads of its own it hands out the base
/// loop.
///
/// Threads: any. stop() in one of the group's own threads ends them all but cannot wait for its
/// own.
class ORBEL_API EventLoopGroup {
public:
    /// `baseLoop` is not owned. The threads are called `name`-0, `name`-1 and so on.
    EventLoopGroup(EventLoop* baseLoop, const std::string& name);
    EventLoopGroup(const EventLoopGroup&) = delete;
    EventLoopGroup& operator=(const EventLoopGroup&) = delete;
    ~EventLoopGroup();

    /// How many threads start() makes, 0 at first. Only while not started (asserted).
    void setThreadNum(size_t threadNum);
    /// With threads, `callback` runs in each of them; without, once in the base loop's thread, or
    /// in the caller's if the base loop does not run. Only while not started (asserted).
    void setThreadInitCallback(const ThreadInitCallback& callback);

    /// True if started, now or before. False, with nothing left running, if a thread could not
    /// start. What the callback throws in the base loop reaches the caller.
    bool start();
    /// Ends and deletes the threads; the base loop is left alone.
    void stop();

    /// The next loop in turn.
    EventLoop* getNextLoop();
    /// The same loop for the same `hash` as long as the group stays up.
    EventLoop* getLoopForHash(size_t hash);
    /// In the order of the threads' names; the base loop alone without threads, or if not started.
    std::vector<EventLoop*> getAllLoops() const;

    /// From the begin of start(), so that an init callback finds it true, to stop().
    bool started() const;
    ///@{
    /// As set; the number is kept over stop().
    size_t threadNum() const;
    const std::string& name() const;
    ///@}

private:
    class ORBEL_LOCAL Internal;

    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Orbel
