#pragma once

#include <atomic>
#include <mutex>

#include "log/ITransportLayer.h"

namespace Vantel::Log {

/// A stream socket with a name in the file system. Its messages go to standard output, never to the
/// logger, which may be what waits for it.
class UnixDomainSocket : public ITransportLayer {
public:
    /// Owns `fd`.
    explicit UnixDomainSocket(int fd = -1) : mFd(fd) {}
    UnixDomainSocket(const UnixDomainSocket&) = delete;
    UnixDomainSocket& operator=(const UnixDomainSocket&) = delete;
    ~UnixDomainSocket() override { UnixDomainSocket::close(); }

    /// Connects to the path under "serverPath", of which 107 bytes count. Tries for two seconds.
    bool connect(const Json::Value& config) override;
    void close() override;
    int fd() const override { return mFd.load(std::memory_order_relaxed); }
    int write(const void* buffer, int size) override;
    int writeTimeout(const void* buffer, int size, int timeoutMs) override;
    int read(void* buffer, int size) override;
    int readTimeout(void* buffer, int size, int timeoutMs) override;
    std::shared_ptr<ITransportLayer> accept() override;

private:
    int waitReady(short events, int timeoutMs) const;
    template <class Transfer>
    int transferTimeout(int size, short events, int timeoutMs, Transfer&& transfer);

    std::mutex mMutex;     // held over each use of the descriptor, so that none outlives close()
    std::atomic<int> mFd;  // written under mMutex
};

}  // namespace Vantel::Log
