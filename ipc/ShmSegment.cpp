#include "ipc/ShmSegment.h"

#include <cerrno>
#include <cstring>

#include "frame/base/Log.h"

namespace Vantel::Memory {

off_t ShmSegment::length() {
    const off_t length = mSegment.length();
    if (length < 0) {
        ORBEL_LOG_ERROR("fstat(%s): %s\n", path(), std::strerror(errno));
        mSegment.closeDescriptor();
    }
    return length;
}

bool ShmSegment::map(uint64_t sizeBytes) {
    const int fd = descriptor();  // map() closes it
    if (mSegment.map(sizeBytes)) {
        return true;
    }
    ORBEL_LOG_ERROR("mmap(fd=%d, size=%u): %s\n", fd, static_cast<unsigned int>(sizeBytes),
                    std::strerror(errno));
    return false;
}

bool ShmSegment::openWhole() {
    if (!open()) {
        return false;
    }
    const off_t found = length();
    return found >= 0 && map(static_cast<uint64_t>(found));
}

bool ShmSegment::createNew(uint64_t sizeBytes) {
    mSegment.unlink();
    if (!mSegment.create(kMode)) {
        ORBEL_LOG_ERROR("shm_open(%s, O_CREAT|O_EXCL): %s\n", path(), std::strerror(errno));
        return false;
    }
    mCreatedFd = descriptor();
    if (!mSegment.allocate(sizeBytes)) {
        ORBEL_LOG_ERROR("ftruncate(%s, %u): %s\n", path(), static_cast<unsigned int>(sizeBytes),
                        std::strerror(errno));
        mSegment.closeDescriptor();
        mSegment.unlink();
        return false;
    }
    return map(sizeBytes);
}

bool ShmSegment::unmap() {
    if (mSegment.unmap()) {
        return true;
    }
    ORBEL_LOG_ERROR("munmap(size=%u): %s\n", static_cast<unsigned int>(size()),
                    std::strerror(errno));
    return false;
}

bool ShmSegment::unlink(const std::string& path) {
    if (Orbel::NamedSegment(path).unlink() || errno == ENOENT) {
        return true;
    }
    ORBEL_LOG_ERROR("shm_unlink(%s): %s\n", path.c_str(), std::strerror(errno));
    return false;
}

}  // namespace Vantel::Memory
