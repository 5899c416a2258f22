#include "Vantel/Orbel/UdpServer.h"

#include <cerrno>
#include <utility>

#include "frame/base/Log.h"
#include "net/SocketError.h"
#include "net/UdpFacade.h"

namespace Vantel::Orbel {

class UdpServer::Internal : public UdpFacade<UdpServer> {
public:
    using UdpFacade::UdpFacade;

    InetAddress mListenAddr;
};

UdpServer::UdpServer(EventLoop* loop, const std::string& name)
    : mInternal(std::make_shared<Internal>(this, loop, name)) {
    mInternal->installCallbacks();
}

UdpServer::~UdpServer() {
    mInternal->end();
}

bool UdpServer::initial(const InetAddress& addr, const std::string& device, bool reusePort) {
    DatagramEndpoint& endpoint = mInternal->mEndpoint;
    if (endpoint.started()) {
        ORBEL_LOG_ERROR("UdpServer::initial failed: server already started\n");
        return false;
    }
    if (!isIpFamily(addr)) {
        ORBEL_LOG_ERROR("UdpServer::initial failed: invalid listen address %s\n",
                        addr.toString().c_str());
        return refuse(EAFNOSUPPORT);
    }
    auto socket = std::make_unique<UdpSocket>(addr.family(), true);
    if (socket->fd() < 0 || (!device.empty() && !socket->bindToDevice(device))) {
        return false;
    }
    socket->setReuseAddr(true);
    if ((reusePort && !socket->setReusePort(true)) || !socket->bind(addr) ||
        !endpoint.initial(std::move(socket))) {
        return false;
    }
    mInternal->mListenAddr = endpoint.localAddr();
    return true;
}

bool UdpServer::start() {
    return mInternal->mEndpoint.start();
}

void UdpServer::stop() {
    mInternal->mEndpoint.stop();
}

ssize_t UdpServer::sendTo(const void* buf, size_t len, const InetAddress& addr, int flags) {
    return mInternal->mEndpoint.sendTo(buf, len, addr, flags);
}

ssize_t UdpServer::recvFrom(void* buf, size_t len, InetAddress* peer, int flags) {
    return mInternal->mEndpoint.recvFrom(buf, len, peer, flags);
}

void UdpServer::setMessageCallback(const MessageCallback& callback) {
    mInternal->mMessageCallback = callback;
}

void UdpServer::setReadableCallback(const ReadableCallback& callback) {
    mInternal->setReadableCallback(callback);
}

void UdpServer::setErrorCallback(const ErrorCallback& callback) {
    mInternal->mErrorCallback = callback;
}

void UdpServer::setMaxDatagramSize(size_t sizeBytes) {
    mInternal->mEndpoint.setMaxDatagramSize(sizeBytes);
}

EventLoop* UdpServer::getLoop() const {
    return mInternal->mEndpoint.getLoop();
}

const UdpSocket* UdpServer::getSocket() const {
    return mInternal->socket();
}

UdpSocket* UdpServer::getSocket() {
    return mInternal->socket();
}

const std::string& UdpServer::name() const {
    return mInternal->mName;
}

InetAddress UdpServer::listenAddr() const {
    return mInternal->mListenAddr;
}

bool UdpServer::started() const {
    return mInternal->mEndpoint.started();
}

}  // namespace Vantel::Orbel
