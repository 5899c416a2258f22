#pragma once

#include <sys/eventfd.h>

#include <chrono>
#include <functional>

#include "Vantel/Orbel/Channel.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/EventLoopThread.h"
#include "frame/base/UniqueFd.h"

namespace OrbelTest {

using Vantel::Orbel::EventLoop;

/// A loop in a thread of its own, for as long as the object lives.
class LoopThread {
public:
    LoopThread() : mThread({}, "testLoop"), mLoop(mThread.startLoop()) {}
    EventLoop* get() const { return mLoop; }
    /// Runs `task` in the loop and waits for it.
    void run(const std::function<void()>& task) const {
        mLoop->runInLoopWithResult<void>(task).get();
    }

private:
    Vantel::Orbel::EventLoopThread mThread;
    EventLoop* mLoop;
};

/// Runs `loop`, this thread's, until the condition holds, asked each millisecond; the last answer.
template <class Condition>
bool runUntil(EventLoop& loop, Condition&& condition, int deadlineMs = 30000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
    bool held = false;
    const unsigned long timer = loop.addTimer(
        [&] {
            held = condition();
            if (held || std::chrono::steady_clock::now() >= end) {
                loop.quit();
            }
        },
        1, true);
    loop.loop();
    loop.cancelTimer(timer);
    return held;
}

/// An eventfd and a channel of `loop` on it, taken out in order at the end.
struct EventSource {
    explicit EventSource(EventLoop& loop, unsigned value = 0)
        : fd(eventfd(value, EFD_CLOEXEC | EFD_NONBLOCK)), channel(&loop, fd.get()) {}
    ~EventSource() {
        if (channel.isAddedToLoop()) {
            takeOut();
        }
    }
    bool takeOut() { return channel.disableAll() && channel.remove(); }

    Vantel::Orbel::UniqueFd fd;
    Vantel::Orbel::Channel channel;
};

}  // namespace OrbelTest
