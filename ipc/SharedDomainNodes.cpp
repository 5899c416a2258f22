#include "Vantel/Utils/Random.h"
#include "frame/base/Log.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemReaderProxy.h"
#include "ipc/SharedMemWriterProxy.h"

/// The nodes of this process, and the ways to those of others.
namespace Vantel::Orbel {

std::shared_ptr<SharedMemNode> SharedDomainImpl::createNode(const std::string& name) {
    const auto self = shared_from_this();  // throws before anything is claimed
    std::lock_guard<std::mutex> guard(mMutex);
    const auto existing = mNodes.find(name);
    if (existing != mNodes.end()) {
        ORBEL_LOG_WARN(" node %s already exist\n", name.c_str());
        return existing->second;
    }
    if (mNodes.size() >= kMaxNodes) {
        ORBEL_LOG_ERROR("max node count %d reached for node %s\n", static_cast<int>(kMaxNodes),
                        name.c_str());
        return nullptr;
    }
    const auto held = segment();
    if (!mInitialized || held == nullptr) {
        ORBEL_LOG_ERROR("no node %s: domain %s is not joined\n", name.c_str(), mDomainName.c_str());
        return nullptr;
    }
    const DomainSegment::Lock lock(*held);
    const auto slot = lock.held() ? held->claimSlot() : std::nullopt;
    if (!slot) {
        ORBEL_LOG_ERROR("no free slot for new node %s\n", name.c_str());
        return nullptr;
    }
    auto node = std::make_shared<SharedMemNodeImpl>(name, held, *slot, self);
    held->header().nodeCount.fetchAdd(1);
    mNodes.emplace(name, node);
    return node;
}

bool SharedDomainImpl::destroyNode(const std::string& name) {
    std::shared_ptr<SharedMemNodeImpl> node;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        const auto found = mNodes.find(name);
        if (found != mNodes.end()) {
            node = std::move(found->second);
            mNodes.erase(found);
        }
    }
    if (node == nullptr) {
        ORBEL_LOG_ERROR("destroy node %s not found\n", name.c_str());
        return false;
    }
    const unsigned long nodeId = node->nodeId();  // deInit() takes it out of the table
    retire(*node);
    removeNode(nodeId);
    if (const auto held = segment()) {
        held->header().nodeCount.lower();
    }
    return true;
}

std::vector<std::shared_ptr<SharedMemNodeImpl>> SharedDomainImpl::localNodes() const {
    std::lock_guard<std::mutex> guard(mMutex);
    std::vector<std::shared_ptr<SharedMemNodeImpl>> nodes;
    nodes.reserve(mNodes.size());
    for (const auto& [name, node] : mNodes) {
        nodes.push_back(node);
    }
    return nodes;
}

std::shared_ptr<SharedMemNodeImpl> SharedDomainImpl::localNode(unsigned long nodeId) const {
    std::lock_guard<std::mutex> guard(mMutex);
    for (const auto& [name, node] : mNodes) {
        if (node->nodeId() == nodeId) {
            return node;
        }
    }
    return nullptr;
}

bool SharedDomainImpl::notifyWriter(unsigned long writerId, unsigned long channelId,
                                    unsigned long sequence, BlockHeader* block) {
    if (block == nullptr || block->status.stateWord().sequence != sequence) {
        return true;  // the block has moved on: there is nobody to tell
    }
    PipeMessage message = PipeMessage::make(PipeAction::DataFinish, block->locationWord(),
                                            channelId, writerId, sequence);
    // Outside mMutex: handling the message may run the user's release callback, which may come
    // back here.
    if (const auto node = localNode(writerId)) {
        return node->processDataFinishMessage(message);
    }
    const auto proxy = getWriterProxy(writerId);
    if (proxy == nullptr) {
        ORBEL_LOG_ERROR("get writer %lld proxy failed\n", static_cast<long long>(writerId));
        return false;
    }
    return proxy->writeMessage(message);
}

std::shared_ptr<SharedMemReaderProxy> SharedDomainImpl::getReaderProxy(unsigned long nodeId) {
    return getProxy(mReaderProxies, nodeId);
}

std::shared_ptr<SharedMemWriterProxy> SharedDomainImpl::getWriterProxy(unsigned long nodeId) {
    return mInitialized ? getProxy(mWriterProxies, nodeId) : nullptr;
}

template <class Proxy>
std::shared_ptr<Proxy> SharedDomainImpl::getProxy(ProxyCache<Proxy>& proxies,
                                                  unsigned long nodeId) {
    auto proxy = proxies.find(nodeId);
    return proxy != nullptr ? proxy : buildProxy(proxies, nodeId);
}

/// Waits for the loop, up to 150 ms; hence under no lock but the gate.
template <class Proxy>
std::shared_ptr<Proxy> SharedDomainImpl::buildProxy(ProxyCache<Proxy>& proxies,
                                                    unsigned long nodeId) {
    const LoopHold gate = holdLoop();
    const auto held = segment();
    const auto entry = held == nullptr ? std::nullopt : held->findAliveNode(nodeId);
    if (!entry) {
        return nullptr;
    }
    return proxies.insert(std::make_shared<Proxy>(getEventLoop(), *entry, mDomainName));
}

void SharedDomainImpl::removeNode(unsigned long nodeId) {
    const LoopHold gate = holdLoop();  // a client ends on the loop
    mReaderProxies.drop(nodeId);
    mWriterProxies.drop(nodeId);
}

}  // namespace Vantel::Orbel
