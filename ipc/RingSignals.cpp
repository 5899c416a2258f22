#include "ipc/RingSignals.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "frame/base/PipeWrite.h"

namespace Vantel::Memory {

namespace {

constexpr uint64_t kRetrySeconds = 60;
constexpr uint32_t kMostSkipped = 11;  // a flag that a dead writer left mutes no reader for longer

}  // namespace

int RingSignals::signal(const char* name, uint32_t index, ShmReaderSlot& slot) {
    std::lock_guard<std::mutex> guard(mMutex);
    if (!mFds[index].valid() && !openWriteEnd(name, index)) {
        return -1;
    }
    for (;;) {
        uint32_t idle = 0;
        if (slot.signalling.compareExchange(idle, 1)) {
            slot.skippedSignals.store(0);
            const bool written = writeByte(index);
            slot.signalling.store(0);
            if (!written) {
                return -1;
            }
            // Who came meanwhile has counted and gone. Its record may be newer than our byte, which
            // matters if the reader has taken that already.
            if (slot.skippedSignals.load() == 0 || anyUnread(index)) {
                return 0;
            }
        } else if (slot.skippedSignals.load() < kMostSkipped) {
            slot.skippedSignals.fetchAdd(1);
            // Counted before this look, as the other clears before its own: one of us sees it.
            if (slot.signalling.load() != 0) {
                return 0;
            }
        } else {
            slot.skippedSignals.store(0);
            return writeByte(index) ? 0 : -1;
        }
    }
}

bool RingSignals::openWriteEnd(const char* name, uint32_t index) {
    const uint64_t now = Orbel::CTime::getCurrentMilliSecond() / 1000;
    if (mLastTry[index] != 0 && now - mLastTry[index] < kRetrySeconds) {
        return false;
    }
    mLastTry[index] = now;
    mFds[index] = openFifo(name, index, false);
    return mFds[index].valid();
}

bool RingSignals::writeByte(uint32_t index) {
    const int fd = mFds[index].get();
    if (Orbel::pipeWrite(fd, "A", 1) == 1) {
        return true;
    }
    ORBEL_LOG_ERROR("write fifo failed: %s, sigIdx %d, fd = %d\n", std::strerror(errno),
                    static_cast<int>(index), fd);
    mFds[index].reset();
    mLastTry[index] = 0;  // a full FIFO, too, is opened anew at the next signal
    return false;
}

bool RingSignals::anyUnread(uint32_t index) const {
    int unread = 0;
    return ioctl(mFds[index].get(), FIONREAD, &unread) == 0 && unread > 0;
}

void RingSignals::closeAll() {
    std::lock_guard<std::mutex> guard(mMutex);
    for (uint32_t i = 0; i < kRingReaders; ++i) {
        mFds[i].reset();
        mLastTry[i] = 0;
    }
}

Orbel::UniqueFd RingSignals::openFifo(const char* name, uint32_t index, bool reader) {
    const std::string path =
        std::string("/tmp/shmBufFifo_") + name + "_" + std::to_string(static_cast<int>(index));
    if (mkfifo(path.c_str(), 0666) != 0 && errno != EEXIST) {
        ORBEL_LOG_ERROR("mkfifo failed %s\n", std::strerror(errno));
        return Orbel::UniqueFd();
    }
    // A reader holds both ends, so that it never sees an end of file and writers can always open.
    const int flags = (reader ? O_RDWR : O_WRONLY) | O_NONBLOCK | O_CLOEXEC;
    Orbel::UniqueFd fd(::open(path.c_str(), flags));
    if (!fd.valid()) {
        ORBEL_LOG_ERROR("open fifo [%s] failed %s\n", path.c_str(), std::strerror(errno));
    }
    return fd;
}

}  // namespace Vantel::Memory
