#include "frame/base/NamedSegment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "frame/base/RetryOnEintr.h"

namespace Vantel::Orbel {

bool NamedSegment::create(mode_t mode) {
    mFd.reset(shm_open(mName.c_str(), O_CREAT | O_EXCL | O_RDWR, mode));
    return mFd.valid();
}

bool NamedSegment::open(mode_t mode) {
    mFd.reset(shm_open(mName.c_str(), O_RDWR, mode));
    return mFd.valid();
}

bool NamedSegment::resize(size_t sizeBytes) {
    const int fd = mFd.get();
    return retryOnEintr([&] { return ftruncate(fd, static_cast<off_t>(sizeBytes)); }) == 0;
}

bool NamedSegment::allocate(size_t sizeBytes) {
    int error = EINTR;
    while (error == EINTR) {
        error = posix_fallocate(mFd.get(), 0, static_cast<off_t>(sizeBytes));
    }
    errno = error;
    return error == 0;
}

off_t NamedSegment::length() const {
    struct stat status {};
    return fstat(mFd.get(), &status) == 0 ? status.st_size : -1;
}

bool NamedSegment::map(size_t sizeBytes) {
    void* base = mmap(nullptr, sizeBytes, PROT_READ | PROT_WRITE, MAP_SHARED, mFd.get(), 0);
    mFd.reset();
    if (base == MAP_FAILED) {
        return false;
    }
    mMapping = Mapping(base, sizeBytes);
    return true;
}

bool NamedSegment::unlink() const {
    return shm_unlink(mName.c_str()) == 0;
}

}  // namespace Vantel::Orbel
