#include "Vantel/Memory/CShmBuffer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/CopyName.h"
#include "frame/base/Log.h"
#include "frame/base/RetryOnEintr.h"
#include "ipc/CreatorLock.h"
#include "ipc/ShmBufferInternal.h"

namespace Vantel::Memory {

CShmBuffer::CShmBuffer() : mInternal(std::make_unique<Internal>()) {}

CShmBuffer::~CShmBuffer() = default;

bool CShmBuffer::create(const char* name, unsigned int dataSize, unsigned int nodeCount,
                        unsigned int sigThreshold) {
    if (nodeCount < 2 || name == nullptr || dataSize == 0) {
        return false;
    }
    char cut[64];  // as the segment's: who shares that shares the lock
    Orbel::copyName(cut, name);
    return Orbel::withCreatorLock(std::string("/tmp/shmBuf_") + cut + ".lock", [&] {
        if (!mInternal->create(cut, dataSize, nodeCount)) {
            return false;
        }
        mInternal->setSigParam(sigThreshold, kRingReaders);
        return true;
    });
}

bool CShmBuffer::open(const char* name) {
    if (name == nullptr) {
        return false;
    }
    if (!mInternal->open(name, 1000)) {
        ORBEL_LOG_ERROR("open shm %s failed\n", name);
        return false;
    }
    return true;
}

bool CShmBuffer::close() {
    return mInternal->close();
}

bool CShmBuffer::destroy() {
    return mInternal->destroy();
}

int CShmBuffer::put(void* data, unsigned int size, unsigned long timeoutMs) {
    Internal& ring = *mInternal;
    if (!ring.mapped() || data == nullptr || size == 0 || size > ring.nodeSize()) {
        ORBEL_LOG_ERROR("Bad argument: data=%p, size=%u\n", data, size);
        return -1;
    }
    int result = ring.put(data, size);
    if (result != -2) {
        return result;
    }
    const uint64_t start = Orbel::CTime::getCurrentMilliSecond();
    while (timeoutMs != 0 && Orbel::CTime::getCurrentMilliSecond() - start < timeoutMs) {
        usleep(1000);
        result = ring.put(data, size);
        if (result != -2) {
            return result;
        }
    }
    ring.notifyReaders();  // shakes a slow one
    return -2;
}

int CShmBuffer::get(void* buffer, unsigned int size, unsigned int* outSize) {
    return buffer == nullptr || size == 0 ? -1 : mInternal->get(buffer, size, outSize);
}

int CShmBuffer::getEventFd() {
    Internal& ring = *mInternal;
    if ((!ring.registered() || ring.eventFd() < 0) && !ring.registerReader()) {
        ORBEL_LOG_ERROR("registerReader failed\n");
        return -1;
    }
    return ring.eventFd();
}

bool CShmBuffer::enableEvent(bool enable) {
    if (!mInternal->registered()) {
        return false;
    }
    mInternal->ownSlot().eventEnabled.store(enable ? 1 : 0);
    return true;
}

int CShmBuffer::readEvent(int count) {
    if (mInternal->eventFd() < 0) {
        return -1;
    }
    char signals[1024];
    const auto wanted = static_cast<size_t>(std::clamp(count, 1, 1024));
    const auto got =
        Orbel::retryOnEintr([&] { return ::read(mInternal->eventFd(), signals, wanted); });
    if (got < 0) {
        return errno == EAGAIN ? 0 : -1;
    }
    return static_cast<int>(got);
}

void CShmBuffer::setOverwrite(bool overwrite) {
    mInternal->setOverwrite(overwrite);
}

}  // namespace Vantel::Memory
