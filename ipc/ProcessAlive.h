#pragma once

#include <sys/types.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

namespace Vantel::Orbel {

/// Whether a process of this id, as found in a segment, exists. One that may not be signalled does;
/// what is no process id, and would make kill() address groups, does not. One system call.
inline bool processAlive(uint32_t pid) {
    const auto id = static_cast<pid_t>(pid);
    return id > 0 && (kill(id, 0) == 0 || errno == EPERM);
}

}  // namespace Vantel::Orbel
