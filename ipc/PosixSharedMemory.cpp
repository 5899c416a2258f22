#include "ipc/PosixSharedMemory.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Vantel::Orbel {

namespace {

constexpr mode_t kMode = 0644;

}  // namespace

PosixSharedMemory::~PosixSharedMemory() {
    PosixSharedMemory::reset();
}

bool PosixSharedMemory::openCreate(unsigned int size) {
    if (mSegment.mapped()) {
        return true;
    }
    if (!mSegment.create(kMode)) {
        if (errno == EEXIST) {
            return openOnly();
        }
        std::printf("create shm [%s] failed, error: %s\n", mSegment.name().c_str(),
                    std::strerror(errno));
        return false;
    }
    if (!mSegment.resize(size)) {
        // The object stays, at length 0; openCreate() of it fails until somebody removes it.
        std::printf("ftruncate failed: %s\n", std::strerror(errno));
        mSegment.closeDescriptor();
        return false;
    }
    if (!mSegment.map(size)) {
        std::printf("attach shm failed: %s\n", std::strerror(errno));
        mSegment.unlink();
        return false;
    }
    return true;
}

bool PosixSharedMemory::openOnly() {
    if (mSegment.mapped()) {
        return true;
    }
    if (!mSegment.open(kMode)) {
        std::printf("get shm [%s] failed: %s\n", mSegment.name().c_str(), std::strerror(errno));
        return false;
    }
    const off_t length = mSegment.length();
    if (length < 0) {
        std::printf("fstat failed: %s\n", std::strerror(errno));
        mSegment.closeDescriptor();
        return false;
    }
    if (!mSegment.map(static_cast<size_t>(length))) {
        std::printf("attach shm [%s] failed: %s\n", mSegment.name().c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

bool PosixSharedMemory::reset() {
    if (!mSegment.mapped()) {
        return false;
    }
    if (!mSegment.unmap()) {
        std::printf("detach shm failed: %s\n", std::strerror(errno));
        return false;
    }
    return true;
}

bool PosixSharedMemory::remove() {
    if (mSegment.mapped()) {
        reset();
    }
    if (!mSegment.unlink()) {
        std::printf("remove shm failed: %s\n", std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace Vantel::Orbel
