#include "frame/base/ThreadId.h"

#include <pthread.h>
#include <unistd.h>

namespace Vantel::Orbel::detail {

constinit thread_local pid_t cachedThreadId = 0;

namespace {

// Runs in the only thread of the child, which has inherited its parent's value.
void forgetInChild() {
    cachedThreadId = 0;
}

}  // namespace

pid_t askThreadId() noexcept {
    [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, &forgetInChild);
    cachedThreadId = gettid();
    return cachedThreadId;
}

}  // namespace Vantel::Orbel::detail
