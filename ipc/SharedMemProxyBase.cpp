#include "ipc/SharedMemProxyBase.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/UnixClient.h"
#include "Vantel/Orbel/UnixStreamSocket.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "ipc/NodeSocket.h"

namespace Vantel::Orbel {

namespace {

constexpr int kConnectTimeoutMs = 100;
/// What a slow or dead peer may cost a commit().
constexpr int kSendTimeoutMs = 10;

/// All of the message and its descriptor, or false with errno.
bool sendWithDescriptor(UnixStreamSocket& socket, const PipeMessage& message) {
    for (;;) {
        const ssize_t sent =
            socket.sendWithFds(&message, sizeof message, &message.fd, 1, MSG_DONTWAIT);
        if (sent == static_cast<ssize_t>(sizeof message)) {
            return true;
        }
        if (sent >= 0) {
            errno = EIO;
            return false;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN || !socket.waitWritable(kSendTimeoutMs, nullptr)) {
            return false;
        }
    }
}

}  // namespace

SharedMemProxyBase::SharedMemProxyBase(NodeEntry node, const std::string& domainName)
    : mNode(std::move(node)), mDomainName(domainName) {}

SharedMemProxyBase::~SharedMemProxyBase() = default;

std::string SharedMemProxyBase::socketPath() const {
    return nodeSocketPath(mDomainName, mNode.name);
}

bool SharedMemProxyBase::attachClient(std::unique_ptr<UnixClient> client) {
    if (nodeId() == 0 || client == nullptr) {
        ORBEL_LOG_ERROR("%s: invalid client args\n", proxyName());
        return false;
    }
    if (mClient != nullptr) {
        ORBEL_LOG_WARN(" %s(%s): client already attached\n", proxyName(), name());
        return false;
    }
    const char* const kind = proxyName();
    if (kind == nullptr || *kind == '\0') {
        ORBEL_LOG_ERROR("SharedMemProxyBase(%s): invalid proxy name\n", name());
        return false;
    }
    client->setConnectionCallback([kind = std::string(kind), node = std::string(name())](
                                      const std::shared_ptr<StreamConnection>& connection) {
        if (!connection->connected()) {
            return;
        }
        auto* const socket = dynamic_cast<UnixStreamSocket*>(connection->getSocket());
        if (socket == nullptr) {
            ORBEL_LOG_ERROR("%s(%s): failed to get socket\n", kind.c_str(), node.c_str());
            return;
        }
        socket->setSendBufSize(kNodeSocketBufferBytes);
    });
    client->enableRetry();
    mClient = std::move(client);
    connect();
    return true;
}

bool SharedMemProxyBase::connect() {
    if (nodeId() == 0 || mClient == nullptr) {
        ORBEL_LOG_ERROR("%s: connect with invalid client, node=%s\n", proxyName(), name());
        return false;
    }
    if (mClient->connection() != nullptr) {
        return true;
    }
    const bool begun = mClient->connect(InetAddress(socketPath()), kConnectTimeoutMs);
    if (mClient->connection() == nullptr) {
        ORBEL_LOG_WARN(" %s(%s): initial connection not ready, retry enabled\n", proxyName(),
                       name());
    }
    return begun;
}

bool SharedMemProxyBase::writeMessage(const PipeMessage& message) {
    if (message.fd < 0) {
        return writeMessages(&message, 1);
    }
    return write([&](UnixStreamSocket& socket) { return sendWithDescriptor(socket, message); });
}

bool SharedMemProxyBase::writeMessages(const PipeMessage* messages, size_t count) {
    const size_t bytes = count * sizeof *messages;
    return write([&](UnixStreamSocket& socket) {
        return socket.sendAll(messages, bytes, MSG_DONTWAIT, kSendTimeoutMs) ==
               static_cast<ssize_t>(bytes);
    });
}

template <class Send>
bool SharedMemProxyBase::write(Send&& send) {
    const Guard<PrioMutex> guard(mMutex);
    const auto connection = mClient == nullptr ? nullptr : mClient->connection();
    if (connection == nullptr) {
        errno = ENOTCONN;
        ORBEL_LOG_ERROR("%s::writeMessage - no connection, node=%s\n", proxyName(), name());
        errno = ENOTCONN;  // the line may have changed it
        return false;
    }
    if (!connection->connected()) {
        errno = ENOTCONN;
        return false;
    }
    auto* const socket = dynamic_cast<UnixStreamSocket*>(connection->getSocket());
    if (socket == nullptr) {
        errno = EINVAL;
        return false;
    }
    if (send(*socket)) {
        return true;
    }
    const int error = errno;
    connection->forceClose();  // the stream may be out of step; the client connects again
    errno = error;
    return false;
}

void SharedMemProxyBase::close() {
    std::unique_ptr<UnixClient> client;
    {
        const Guard<PrioMutex> guard(mMutex);
        client = std::move(mClient);
    }
    // Destroyed outside the mutex: it waits for the loop, which may wait for the mutex.
}

}  // namespace Vantel::Orbel
