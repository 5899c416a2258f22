#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Vantel::Orbel {

/// Owns one file descriptor; closes it in its destructor without touching errno.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept : mFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : mFd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const noexcept { return mFd; }
    bool valid() const noexcept { return mFd >= 0; }

    /// Gives the descriptor away: the caller closes it.
    [[nodiscard]] int release() noexcept { return std::exchange(mFd, -1); }

    void reset(int fd = -1) noexcept {
        const int old = std::exchange(mFd, fd);
        if (old >= 0 && old != fd) {
            const int saved = errno;  // a caller that failed reports its own error, not close()'s
            ::close(old);
            errno = saved;
        }
    }

private:
    int mFd;
};

}  // namespace Vantel::Orbel
