#pragma once

#include "frame/base/UniqueFd.h"

namespace Vantel::Orbel {

/// Owns an flock on a file that exists for this alone: created when missing, never removed (a
/// removed lock file would be locked by one process while another makes it anew). The kernel
/// releases it when the holder dies. The destructor unlocks.
///
/// Each step is its own call, so that the caller says what failed. Each returns false with errno
/// set. One thread at a time; two objects exclude each other also within a process.
class FileLock {
public:
    bool open(const char* path);
    /// Waits for the lock, however many signals arrive.
    bool lock();
    bool unlock();

private:
    UniqueFd mFd;
};

}  // namespace Vantel::Orbel
