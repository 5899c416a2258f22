#include "log/UnixDomainSocket.h"

#include <json/json.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "frame/base/CopyName.h"
#include "frame/base/RetryOnEintr.h"
#include "frame/base/UniqueFd.h"

namespace Vantel::Log {

namespace {

constexpr int kConnectTries = 100;
constexpr useconds_t kConnectPauseUs = 20000;

bool connectWithTries(int fd, const sockaddr_un& address) {
    for (int tries = 0; tries < kConnectTries; ++tries) {
        if (tries > 0) {
            usleep(kConnectPauseUs);
        }
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::shared_ptr<ITransportLayer> ITransportLayer::create(const std::string& type) {
    return type == "UnixDomainSocket" ? std::make_shared<UnixDomainSocket>() : nullptr;
}

bool UnixDomainSocket::connect(const Json::Value& config) {
    if (!config.isObject() || !config["serverPath"].isString()) {
        std::printf("Error, Error, config has no serverPath key param\n");
        return false;
    }
    Orbel::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        std::printf("Error, Error, cannot create unix socket: %s\n", strerror(errno));
        return false;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    Orbel::copyName(address.sun_path, config["serverPath"].asCString());
    if (!connectWithTries(fd.get(), address)) {
        std::printf("Error, cannot connect to unix address %s:%s\n", address.sun_path,
                    strerror(errno));
        return false;
    }
    std::printf(">>>>>>>>>> connect to unix address %s success >>>>>>>>\n", address.sun_path);
    close();
    const std::lock_guard guard(mMutex);
    mFd.store(fd.release(), std::memory_order_relaxed);
    return true;
}

void UnixDomainSocket::close() {
    const std::lock_guard guard(mMutex);
    const Orbel::UniqueFd fd(mFd.exchange(-1, std::memory_order_relaxed));
}

int UnixDomainSocket::write(const void* buffer, int size) {
    const std::lock_guard guard(mMutex);
    const int fd = mFd.load(std::memory_order_relaxed);
    if (fd < 0 || buffer == nullptr || size < 0) {
        return -1;
    }
    // Without SIGPIPE: a server that dies must not take its clients along.
    const ssize_t written = Orbel::retryOnEintr(
        [&] { return send(fd, buffer, static_cast<size_t>(size), MSG_NOSIGNAL); });
    if (written < 0 && errno == EAGAIN) {
        return 0;
    }
    if (written < 0) {
        std::printf("Error, write failed :%s wrSize = %d>>>>>\n", strerror(errno), size);
    }
    return static_cast<int>(written);
}

int UnixDomainSocket::read(void* buffer, int size) {
    const std::lock_guard guard(mMutex);
    const int fd = mFd.load(std::memory_order_relaxed);
    if (fd < 0 || buffer == nullptr || size < 0) {
        errno = EBADF;
        return -1;
    }
    return static_cast<int>(::read(fd, buffer, static_cast<size_t>(size)));
}

/// 1 if the socket is ready, 0 after `timeoutMs`, -1 on failure.
int UnixDomainSocket::waitReady(short events, int timeoutMs) const {
    pollfd waited{fd(), events, 0};
    return poll(&waited, 1, timeoutMs);
}

/// `transfer(done, ended)` moves bytes from position `done` on, and says if no more can come.
template <class Transfer>
int UnixDomainSocket::transferTimeout(int size, short events, int timeoutMs, Transfer&& transfer) {
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int done = 0;
    bool ended = false;
    for (;;) {
        const int moved = transfer(done, ended);
        if (moved < 0) {
            return -1;
        }
        done += moved;
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now()).count();
        if (ended || done >= size || left <= 0) {
            return done;
        }
        const int ready = waitReady(events, static_cast<int>(left));
        if (ready == 0) {
            return done;
        }
        if (ready < 0 && errno != EINTR) {
            return -1;
        }
    }
}

int UnixDomainSocket::writeTimeout(const void* buffer, int size, int timeoutMs) {
    return transferTimeout(size, POLLOUT, timeoutMs, [&](int done, bool&) {
        return write(static_cast<const char*>(buffer) + done, size - done);
    });
}

int UnixDomainSocket::readTimeout(void* buffer, int size, int timeoutMs) {
    return transferTimeout(size, POLLIN, timeoutMs, [&](int done, bool& ended) {
        const int count = read(static_cast<char*>(buffer) + done, size - done);
        ended = count == 0;
        return count < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : count;
    });
}

std::shared_ptr<ITransportLayer> UnixDomainSocket::accept() {
    const std::lock_guard guard(mMutex);
    Orbel::UniqueFd accepted(accept4(fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!accepted.valid()) {
        std::fprintf(stderr, "Error accept failed %s \n", strerror(errno));
        return nullptr;
    }
    return std::make_shared<UnixDomainSocket>(accepted.release());
}

}  // namespace Vantel::Log
