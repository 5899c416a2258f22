#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/CTime.h"
#include "frame/base/CopyName.h"
#include "frame/base/Log.h"
#include "ipc/ShmBufferInternal.h"

namespace Vantel::Memory {

namespace {

constexpr int kOpenAttempts = 10;

/// Part of the format, taken by nobody: so the attributes are all that counts.
bool initMutex(pthread_mutex_t& mutex) {
    pthread_mutexattr_t attribute;
    pthread_mutexattr_init(&attribute);
    pthread_mutexattr_setpshared(&attribute, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setprotocol(&attribute, PTHREAD_PRIO_INHERIT);
    pthread_mutexattr_setrobust(&attribute, PTHREAD_MUTEX_ROBUST);
    const int error = pthread_mutex_init(&mutex, &attribute);
    pthread_mutexattr_destroy(&attribute);
    if (error != 0) {
        ORBEL_LOG_ERROR("initial share memory mutex failed\n");
    }
    return error == 0;
}

}  // namespace

CShmBuffer::Internal::Internal() : mPid(static_cast<uint32_t>(getpid())) {}

void CShmBuffer::Internal::keepName(const char* name) {
    char copy[sizeof mName];  // `name` may be mName
    Orbel::copyName(copy, name);
    std::memcpy(mName, copy, sizeof mName);
    mSegment.emplace(std::string("/shmBuf_") + mName);
}

bool CShmBuffer::Internal::create(const char* name, uint32_t dataSize, uint32_t nodeCount) {
    const RingSize size = RingSize::of(dataSize, nodeCount);
    if (!size.fitsInto(RingSize::kLargest)) {
        ORBEL_LOG_ERROR(" shm name=%s too large: data size %u, node count %u\n", name, dataSize,
                        nodeCount);
        return false;
    }
    const auto totalBytes = static_cast<uint32_t>(size.totalBytes());
    ORBEL_LOG_INFO(" shm size needed for queue - %u, name=%s\n", totalBytes, name);
    if (mapped()) {
        close();
    }
    keepName(name);
    mSize = size;
    switch (joinExisting(totalBytes)) {
        case Found::Joined:
            return true;
        case Found::Failed:
            close();
            return false;
        case Found::Nothing:
            break;
    }
    if (mapped()) {
        // Sequentially consistent: readers have to see it before they can find the name gone.
        header()->valid.store(0);
        close();
        keepName(name);
        mSize = size;
    }
    return createNew(totalBytes);
}

/// Nothing: there is no ring of this size, but perhaps (mapped, then) one to be given up.
CShmBuffer::Internal::Found CShmBuffer::Internal::joinExisting(uint64_t totalBytes) {
    ShmSegment& segment = *mSegment;
    if (!segment.open()) {
        ORBEL_LOG_ERROR("shm_open(%s, O_RDWR): %s\n", segment.path(), std::strerror(errno));
        return Found::Nothing;
    }
    const off_t found = segment.length();
    if (found < 0) {
        return Found::Nothing;
    }
    const auto foundBytes = static_cast<uint64_t>(found);
    ORBEL_LOG_INFO(" shm opened, name=%s, fd=%d, size=%lu\n", mName, segment.descriptor(),
                   foundBytes);
    if (foundBytes != totalBytes) {
        ORBEL_LOG_WARN(" shm name=%s size mismatch(%lu != %u) — recreating\n", mName, foundBytes,
                       static_cast<unsigned int>(totalBytes));
        if (foundBytes >= sizeof(ShmBufferHeader)) {
            segment.map(foundBytes);  // so that its readers can be told; if not, they are not
        }
        return Found::Nothing;
    }
    if (!segment.map(totalBytes)) {
        return Found::Failed;
    }
    if (header()->version.load() != kRingVersion) {
        return initQueue() ? Found::Joined : Found::Failed;
    }
    const RingSize theirs = foundSize();
    if (theirs.nodeSize == mSize.nodeSize && theirs.nodeCount == mSize.nodeCount) {
        return Found::Joined;
    }
    ORBEL_LOG_WARN(" shm name=%s params mismatch — recreating\n", mName);
    return Found::Nothing;
}

bool CShmBuffer::Internal::createNew(uint64_t totalBytes) {
    if (!mSegment->createNew(totalBytes)) {
        return false;
    }
    ORBEL_LOG_INFO(" shm created, name=%s, size=%u, fd=%d\n", mName,
                   static_cast<unsigned int>(totalBytes), mSegment->createdDescriptor());
    return initQueue();
}

/// Under the creators' lock.
bool CShmBuffer::Internal::initQueue() {
    std::memset(mSegment->address(), 0, mSegment->size());
    ShmBufferHeader& ring = *header();
    ring.nodeSize.store(static_cast<uint32_t>(mSize.nodeSize));
    ring.nodeCount.store(static_cast<uint32_t>(mSize.nodeCount));
    for (uint64_t i = 0; i < mSize.nodeCount; ++i) {
        ShmNode& node = nodeAt(i);
        node.word.store(RingWord{RingWord::State::Initial, i}.pack(), std::memory_order_relaxed);
        node.writerPid.store(mPid, std::memory_order_relaxed);
        node.timestamp.store(Orbel::CTime::getCurrentMicroSecond(), std::memory_order_relaxed);
    }
    for (pthread_mutex_t& mutex : ring.mutexes) {
        if (!initMutex(mutex)) {
            return false;
        }
    }
    ring.valid.store(1);
    ring.version.store(kRingVersion);  // last: whoever sees it sees a whole ring
    return true;
}

bool CShmBuffer::Internal::open(const char* name, int waitMs) {
    if (mapped()) {
        return true;
    }
    keepName(name);
    if (!openSegment(waitMs)) {
        return false;
    }
    mSize = mSegment->size() < sizeof(ShmBufferHeader) ? RingSize{} : foundSize();
    // Sizes that do not lie in the mapping are no ring's: nothing behind them is touched.
    if (!mSize.fitsInto(mSegment->size()) || header()->valid.load() == 0) {
        ORBEL_LOG_INFO(" shm name=%s is invalid\n", mName);
        close();
        return false;
    }
    if (!registerReader()) {
        ORBEL_LOG_ERROR("shm name=%s registerReader failed\n", mName);
        close();
        return false;
    }
    return true;
}

/// Opens and maps what is there; waits for a name that is missing, not for a maker to be done.
bool CShmBuffer::Internal::openSegment(int waitMs) {
    bool opened = mSegment->open();
    for (int attempt = 1; !opened && attempt <= kOpenAttempts; ++attempt) {
        Orbel::CThread::sleep(waitMs / kOpenAttempts);
        opened = attempt < kOpenAttempts && mSegment->open();
    }
    const off_t length = opened ? mSegment->length() : -1;
    return length >= 0 && mSegment->map(static_cast<uint64_t>(length));
}

bool CShmBuffer::Internal::close() {
    if (mapped()) {
        unregisterReader();
    }
    mSigIdx = -1;
    mEventFd.reset();
    mSignals.closeAll();
    if (mapped() && !mSegment->unmap()) {
        return false;
    }
    mSegment.reset();
    return true;
}

bool CShmBuffer::Internal::destroy() {
    if (!mapped()) {
        return false;
    }
    header()->valid.store(0);
    const std::string path = mSegment->path();
    close();
    return ShmSegment::unlink(path);
}

RingSize CShmBuffer::Internal::foundSize() const {
    return {header()->nodeSize.load(), header()->nodeCount.load()};
}

ShmNode& CShmBuffer::Internal::nodeAt(uint64_t position) const {
    std::byte* base = mSegment->address() + sizeof(ShmBufferHeader);
    return *reinterpret_cast<ShmNode*>(base + position % mSize.nodeCount * mSize.stride());
}

}  // namespace Vantel::Memory
