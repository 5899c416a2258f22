#include "Vantel/Orbel/UdpClient.h"

#include <cerrno>
#include <utility>

#include "frame/base/Log.h"
#include "net/SocketError.h"
#include "net/UdpFacade.h"

namespace Vantel::Orbel {

class UdpClient::Internal : public UdpFacade<UdpClient> {
public:
    using UdpFacade::UdpFacade;

    InetAddress mServerAddr;
    InetAddress mLocalAddr;
};

UdpClient::UdpClient(EventLoop* loop, const std::string& name)
    : mInternal(std::make_shared<Internal>(this, loop, name)) {
    mInternal->installCallbacks();
}

UdpClient::~UdpClient() {
    mInternal->end();
}

bool UdpClient::initial(const InetAddress& server) {
    return open(server, nullptr);
}

bool UdpClient::initial(const InetAddress& server, const InetAddress& local) {
    return open(server, &local);
}

bool UdpClient::initial(const std::string& host, uint16_t port, bool ipv6) {
    InetAddress server;
    return InetAddress::resolve(host, port, &server, ipv6) && open(server, nullptr);
}

bool UdpClient::initial(const std::string& host, uint16_t port, const InetAddress& local,
                        bool ipv6) {
    InetAddress server;
    return InetAddress::resolve(host, port, &server, ipv6) && open(server, &local);
}

/// `local` is null if the kernel is to choose.
bool UdpClient::open(const InetAddress& server, const InetAddress* local) {
    DatagramEndpoint& endpoint = mInternal->mEndpoint;
    if (endpoint.started()) {
        ORBEL_LOG_ERROR("UdpClient::initial failed: client already started\n");
        return false;
    }
    if (!isIpFamily(server) || (local != nullptr && local->family() != server.family())) {
        return refuse(EAFNOSUPPORT);
    }
    auto socket = std::make_unique<UdpSocket>(server.family(), true);
    if (socket->fd() < 0) {
        return false;
    }
    if (local != nullptr) {
        socket->setReuseAddr(true);
        if (!socket->bind(*local)) {
            return false;
        }
    }
    if (!socket->connect(server) || !endpoint.initial(std::move(socket))) {
        return false;
    }
    mInternal->mServerAddr = server;
    mInternal->mLocalAddr = endpoint.localAddr();
    return true;
}

bool UdpClient::start() {
    return mInternal->mEndpoint.start();
}

void UdpClient::stop() {
    mInternal->mEndpoint.stop();
}

ssize_t UdpClient::send(const void* buf, size_t len, int flags) {
    return mInternal->mEndpoint.send(buf, len, flags);
}

ssize_t UdpClient::sendTo(const void* buf, size_t len, const InetAddress& addr, int flags) {
    return mInternal->mEndpoint.sendTo(buf, len, addr, flags);
}

ssize_t UdpClient::recv(void* buf, size_t len, int flags) {
    return mInternal->mEndpoint.recv(buf, len, flags);
}

ssize_t UdpClient::recvFrom(void* buf, size_t len, InetAddress* peer, int flags) {
    return mInternal->mEndpoint.recvFrom(buf, len, peer, flags);
}

void UdpClient::setMessageCallback(const MessageCallback& callback) {
    mInternal->mMessageCallback = callback;
}

void UdpClient::setReadableCallback(const ReadableCallback& callback) {
    mInternal->setReadableCallback(callback);
}

void UdpClient::setErrorCallback(const ErrorCallback& callback) {
    mInternal->mErrorCallback = callback;
}

void UdpClient::setMaxDatagramSize(size_t sizeBytes) {
    mInternal->mEndpoint.setMaxDatagramSize(sizeBytes);
}

EventLoop* UdpClient::getLoop() const {
    return mInternal->mEndpoint.getLoop();
}

const UdpSocket* UdpClient::getSocket() const {
    return mInternal->socket();
}

UdpSocket* UdpClient::getSocket() {
    return mInternal->socket();
}

const std::string& UdpClient::name() const {
    return mInternal->mName;
}

InetAddress UdpClient::serverAddr() const {
    return mInternal->mServerAddr;
}

InetAddress UdpClient::localAddr() const {
    return mInternal->mLocalAddr;
}

bool UdpClient::started() const {
    return mInternal->mEndpoint.started();
}

}  // namespace Vantel::Orbel
