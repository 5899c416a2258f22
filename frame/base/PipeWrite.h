#pragma once

#include <sys/types.h>

#include <cstddef>

namespace Vantel::Orbel {

/// write(2) to a pipe or FIFO, again after EINTR, that fails with EPIPE where there is no reader
/// and raises no SIGPIPE, whatever the process does with that signal: it is blocked in the thread
/// meanwhile, and the one that came up is taken back.
ssize_t pipeWrite(int fd, const void* data, size_t sizeBytes);

}  // namespace Vantel::Orbel
