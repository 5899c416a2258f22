#include "net/StopInLoop.h"

#include <future>
#include <memory>
#include <utility>

#include "net/EventLoopInternal.h"

namespace Vantel::Orbel {

bool StopInLoop::runAndWait(EventLoop& loop, const std::function<void()>& cleanup) {
    if (loop.isInLoopThread()) {
        cleanup();
        return true;
    }
    // Shared: the loop may still be inside the task when the waiter is let go.
    const auto task = std::make_shared<std::packaged_task<void()>>(std::cref(cleanup));
    std::future<void> done = task->get_future();
    if (!loop.mInternal->addCleanup([task] { (*task)(); }, true)) {
        return false;
    }
    done.get();
    return true;
}

void StopInLoop::queue(EventLoop& loop, std::function<void()> cleanup) {
    loop.mInternal->addCleanup(std::move(cleanup), false);
}

}  // namespace Vantel::Orbel
