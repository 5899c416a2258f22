#include "Vantel/Orbel/NamedPipe.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "frame/base/Log.h"
#include "frame/base/PipeWrite.h"
#include "frame/base/Require.h"
#include "frame/base/RetryOnEintr.h"

namespace Vantel::Orbel {

namespace {

constexpr int kWriteAttempts = 11;

}  // namespace

class NamedPipe::Internal {
public:
    explicit Internal(const char* name) : mName(name) {}
    ~Internal() {
        if (mFd != 0) {  // 0 counts as not open
            ::close(mFd);
        }
    }
    Internal(const Internal&) = delete;
    Internal& operator=(const Internal&) = delete;

    bool isOpen() const { return mFd > 0; }

    const std::string mName;
    int mFd = -1;  // a plain number and no owner: 0 is kept and never closed
};

NamedPipe::NamedPipe(const char* name) {
    ORBEL_REQUIRE(name != nullptr && *name != '\0', "pipe name is null");
    mInternal = std::make_unique<Internal>(name);
}

NamedPipe::~NamedPipe() = default;

bool NamedPipe::open(bool readable, unsigned int pipeSize) {
    if (mInternal->isOpen()) {
        return true;
    }
    const char* name = mInternal->mName.c_str();
    if (mkfifo(name, 0666) != 0 && errno != EEXIST) {
        std::printf("mkfifo failed %s\n", std::strerror(errno));
        return false;
    }
    const int flags = (readable ? O_RDWR : O_WRONLY) | O_NONBLOCK | O_CLOEXEC;
    mInternal->mFd = retryOnEintr([&] { return ::open(name, flags, 0666); });
    if (mInternal->mFd < 0) {
        ORBEL_LOG_ERROR("open named pipe %s failed: %s\n", name, std::strerror(errno));
        return false;
    }
    setPipeSize(pipeSize);
    return true;
}

int NamedPipe::read(void* buffer, unsigned int size) {
    if (!mInternal->isOpen()) {
        return -1;
    }
    const auto got = retryOnEintr([&] { return ::read(mInternal->mFd, buffer, size); });
    if (got < 0 && errno != EAGAIN) {
        ORBEL_LOG_ERROR("read named pipe failed: %s\n", std::strerror(errno));
    }
    return static_cast<int>(got);
}

int NamedPipe::write(const void* data, unsigned int size) {
    if (!mInternal->isOpen()) {
        return -1;
    }
    for (int attempt = 0; attempt < kWriteAttempts; ++attempt) {
        const auto written = pipeWrite(mInternal->mFd, data, size);
        if (written >= 0) {
            return static_cast<int>(written);
        }
        if (errno != EAGAIN) {
            ORBEL_LOG_ERROR("write named pipe [%s] failed: %s\n", mInternal->mName.c_str(),
                            std::strerror(errno));
            return -1;
        }
    }
    return static_cast<int>(size);  // lost, and meant so: a full pipe must not fail the writer
}

int NamedPipe::fd() const {
    return mInternal->mFd;
}

int NamedPipe::getPipeSize() {
    return mInternal->isOpen() ? fcntl(mInternal->mFd, F_GETPIPE_SZ) : -1;
}

int NamedPipe::setPipeSize(unsigned int size) {
    if (!mInternal->isOpen()) {
        return -1;
    }
    if (fcntl(mInternal->mFd, F_SETPIPE_SZ, size) < 0) {
        ORBEL_LOG_ERROR("set pipe size failed: %s\n", std::strerror(errno));
        return -1;
    }
    return 0;
}

int NamedPipe::getReadableSize() {
    int waiting = 0;
    if (!mInternal->isOpen() || ioctl(mInternal->mFd, FIONREAD, &waiting) != 0) {
        return -1;
    }
    return waiting;
}

}  // namespace Vantel::Orbel
