#include "frame/base/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include "frame/base/RetryOnEintr.h"

namespace Vantel::Orbel {

bool FileLock::open(const char* path) {
    mFd.reset(::open(path, O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
    return mFd.valid();
}

bool FileLock::lock() {
    return retryOnEintr([&] { return flock(mFd.get(), LOCK_EX); }) == 0;
}

bool FileLock::unlock() {
    return flock(mFd.get(), LOCK_UN) == 0;
}

}  // namespace Vantel::Orbel
