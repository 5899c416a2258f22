#pragma once

#include <sys/types.h>

namespace Vantel::Orbel {

namespace detail {
// Asked once a thread: gettid is a system call, and every log line carries the id. 0 is unknown.
// Initial-exec, since a call of __tls_get_addr would cost more than all the rest.
extern constinit thread_local pid_t cachedThreadId __attribute__((tls_model("initial-exec")));
pid_t askThreadId() noexcept;
}  // namespace detail

/// The kernel's id of the calling thread; right in a forked child, too.
inline pid_t currentThreadId() noexcept {
    const pid_t known = detail::cachedThreadId;
    return known != 0 ? known : detail::askThreadId();
}

}  // namespace Vantel::Orbel
