#include "ipc/SharedMemNodeImpl.h"

#include <utility>
#include <vector>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/UnixServer.h"
#include "Vantel/Orbel/UnixStreamSocket.h"
#include "Vantel/Utils/Random.h"
#include "frame/base/Log.h"
#include "frame/base/ScopeExit.h"
#include "ipc/NodeSocket.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemReadChannelImpl.h"
#include "ipc/SharedMemWriteChannelImpl.h"

namespace Vantel::Orbel {

namespace {

unsigned long newNodeId() {
    unsigned long id = 0;
    while (id == 0) {  // which means nobody
        Utils::generateUUID(reinterpret_cast<uint8_t*>(&id), sizeof id);
    }
    return id;
}

}  // namespace

SharedMemNodeImpl::SharedMemNodeImpl(const std::string& name,
                                     std::shared_ptr<DomainSegment> segment, unsigned int slot,
                                     std::weak_ptr<SharedDomainImpl> domain)
    : mSegment(std::move(segment)),
      mSlot(slot),
      mName(name.substr(0, name.find('\0')).substr(0, kNameSize - 1)),
      mNodeId(newNodeId()),
      mTag(writerTag(mNodeId)),
      mDomain(std::move(domain)) {
    mSegment->fillSlot(mSlot, mName, mNodeId);
}

SharedMemNodeImpl::~SharedMemNodeImpl() {
    SharedMemNodeImpl::deInit();
    closeServer();
    // deInit() leaves the entry of a node alone that was never initialized; nobody else frees it
    // while this process lives.
    const DomainSegment::Lock lock(*mSegment);
    if (lock.held() && ownsEntry() && entry().state.load() == NodeState::Claimed) {
        mSegment->freeSlot(mSlot);
    }
}

unsigned long SharedMemNodeImpl::nodeId() const {
    const unsigned long id = entry().nodeId.load();
    return id == mNodeId ? id : 0;  // the slot may be another node's by now
}

bool SharedMemNodeImpl::init() {
    std::lock_guard<std::mutex> guard(mInitMutex);
    if (mInitialized) {
        ORBEL_LOG_WARN(" SharedMemNode %s already init\n", mName.c_str());
        return true;
    }
    const auto domain = mDomain.lock();
    if (domain == nullptr) {
        ORBEL_LOG_ERROR("SharedMemNode %s get domain failed\n", mName.c_str());
        return false;
    }
    const auto gate = domain->holdLoop();
    EventLoop* const loop = domain->getEventLoop();
    if (loop == nullptr) {
        ORBEL_LOG_ERROR("SharedMemNode %s get event loop failed\n", mName.c_str());
        return false;
    }
    ScopeExit undo([this] { stopServer(); });
    if (!startServer(loop, nodeSocketPath(domain->domainName(), mName))) {
        return false;
    }
    if (!domain->joined()) {
        // It was left meanwhile, maybe before it could see the server.
        ORBEL_LOG_ERROR("SharedMemNode %s get event loop failed\n", mName.c_str());
        return false;
    }
    NodeState expected = NodeState::Claimed;
    if (!ownsEntry() || !entry().state.compareExchange(expected, NodeState::Alive)) {
        ORBEL_LOG_ERROR("SharedMemNode %s has lost its place in the domain\n", mName.c_str());
        return false;
    }
    undo.dismiss();
    mInitialized = true;
    return true;
}

bool SharedMemNodeImpl::startServer(EventLoop* loop, const std::string& path) {
    auto server = std::make_unique<UnixServer>(loop, mName);
    ORBEL_LOG_INFO(" SharedMemNode init mNodeInfo->nodeId: %lu, nodename = %s, unixsocket %s\n",
                   mNodeId, mName.c_str(), path.c_str());
    if (!server->initial(InetAddress(path), "", false)) {
        ORBEL_LOG_ERROR("UnixServer initial failed for %s\n", path.c_str());
        return false;
    }
    server->setConnectionCallback([](const std::shared_ptr<StreamConnection>& connection) {
        auto* const socket = dynamic_cast<UnixStreamSocket*>(connection->getSocket());
        if (connection->connected() && socket != nullptr) {
            socket->setRecvBufSize(kNodeSocketBufferBytes);
        }
    });
    server->setReadableCallback(
        [weak = weak_from_this()](const std::shared_ptr<StreamConnection>& connection) {
            if (const auto node = weak.lock()) {
                node->onReadable(connection);
            }
        });
    if (!server->start()) {
        ORBEL_LOG_ERROR("UnixServer start failed for %s\n", path.c_str());
        return false;
    }
    std::lock_guard<std::mutex> guard(mMutex);
    mServer = std::move(server);  // only now: whoever leaves the domain may take it away at once
    return true;
}

bool SharedMemNodeImpl::deInit() {
    if (!mInitialized) {
        return false;
    }
    const auto domain = mDomain.lock();
    if (domain == nullptr) {
        mInitialized = false;
        ORBEL_LOG_WARN(" Domain is invalid, cannot deInit node safely\n");
        return false;
    }
    NodeState expected = NodeState::Alive;
    if (!ownsEntry() || !entry().state.compareExchange(expected, NodeState::Closing)) {
        return false;
    }
    closeServer();
    closeChannels();
    mInitialized = false;
    // Under the lock, so that an entry without a process is seen there only if its owner has died.
    const DomainSegment::Lock lock(*mSegment);
    if (ownsEntry() && entry().state.load() == NodeState::Closing) {
        mSegment->freeSlot(mSlot);
    }
    return true;
}

void SharedMemNodeImpl::closeServer() {
    const auto domain = mDomain.lock();
    // A domain that is being destroyed closes the servers itself before its loop ends.
    const auto gate = domain != nullptr ? domain->holdLoop() : SharedDomainImpl::LoopHold();
    stopServer();
}

void SharedMemNodeImpl::stopServer() {
    std::unique_ptr<UnixServer> server;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        server = std::move(mServer);
    }
    EventLoop* const loop = server == nullptr ? nullptr : server->getLoop();
    if (loop == nullptr) {
        return;  // without a loop the server stops in its destructor
    }
    ORBEL_LOG_INFO(" SharedMemNode deInit schedule unix server(%s) stop in loop thread\n",
                   mName.c_str());
    loop->runInLoopWithResult<bool>([&server] {
            server->stop();
            server.reset();
            return true;
        })
        .get();
}

void SharedMemNodeImpl::closeChannels() {
    ChannelMap<SharedMemReadChannelImpl> readChannels;
    ChannelMap<SharedMemWriteChannelImpl> writeChannels;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        readChannels.swap(mReadChannels);
        writeChannels.swap(mWriteChannels);
    }
    for (const auto& [id, channel] : readChannels) {
        channel->close();
    }
    for (const auto& [id, channel] : writeChannels) {
        channel->close();
    }
}

/// Null, with `created` false, if no channel can be made.
template <class Impl>
std::shared_ptr<Impl> SharedMemNodeImpl::newChannel(ChannelMap<Impl>& channels,
                                                    const std::string& name, bool& created) {
    created = false;
    if (!mInitialized || name.empty() || name[0] == '\0') {
        return nullptr;
    }
    const unsigned long id = SharedMemChannel::generateChannelId(name);
    std::lock_guard<std::mutex> guard(mMutex);
    const auto existing = channels.find(id);
    if (existing != channels.end()) {
        return existing->second;
    }
    auto channel = std::make_shared<Impl>(name, shared_from_this());
    channels.emplace(id, channel);
    created = true;
    return channel;
}

std::shared_ptr<SharedMemReadChannel> SharedMemNodeImpl::newReadChannel(const std::string& name) {
    bool created = false;
    auto channel = newChannel(mReadChannels, name, created);
    if (created) {
        ORBEL_LOG_INFO(" created new read channel [%s] for channelId %lu\n", name.c_str(),
                       channel->channelId());
    }
    return channel;
}

std::shared_ptr<SharedMemWriteChannel> SharedMemNodeImpl::newWriteChannel(const std::string& name) {
    bool created = false;
    auto channel = newChannel(mWriteChannels, name, created);
    if (created) {
        ORBEL_LOG_INFO(" created new write channel [%s] for channelId %lu\n", name.c_str(),
                       channel->channelId());
    }
    return channel;
}

template <class Impl>
bool SharedMemNodeImpl::deleteChannel(ChannelMap<Impl>& channels, const std::string& name) {
    const unsigned long id = SharedMemChannel::generateChannelId(name);
    typename ChannelMap<Impl>::node_type deleted;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        deleted = channels.extract(id);
    }
    if (deleted.empty()) {
        return false;
    }
    deleted.mapped()->close();
    return true;
}

bool SharedMemNodeImpl::deleteReadChannel(const std::string& name) {
    return deleteChannel(mReadChannels, name);
}

bool SharedMemNodeImpl::deleteWriteChannel(const std::string& name) {
    return deleteChannel(mWriteChannels, name);
}

void SharedMemNodeImpl::checkAndCleanupChannels() {
    std::vector<std::shared_ptr<SharedMemWriteChannelImpl>> channels;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        for (const auto& [id, channel] : mWriteChannels) {
            channels.push_back(channel);
        }
    }
    for (const auto& channel : channels) {
        channel->checkAndCleanupBuffers();
    }
}

}  // namespace Vantel::Orbel
