#include "ipc/DomainSegment.h"

#include <unistd.h>

#include <new>

#include "frame/base/CopyName.h"
#include "frame/base/Log.h"
#include "ipc/SharedMemory.h"

namespace Vantel::Orbel {

bool NodeEntry::current() const {
    return segment != nullptr && segment->node(slot).nodeId.load() == nodeId;
}

DomainSegment::Lock::Lock(DomainSegment& segment)
    : mMutex(segment.header().lock), mHeld(mMutex.enter()) {}

DomainSegment::Lock::~Lock() {
    if (mHeld) {
        mMutex.leave();
    }
}

DomainSegment::DomainSegment(std::shared_ptr<SharedMemory> memory)
    : mMemory(std::move(memory)), mHeader(static_cast<DomainHeader*>(mMemory->baseAddress())) {}

std::shared_ptr<DomainSegment> DomainSegment::open(const std::string& domainName) {
    auto memory = SharedMemory::create("/shmipc_domain_" + domainName);
    if (!memory->openCreate(sizeof(DomainHeader))) {
        ORBEL_LOG_ERROR("Failed to create domain shared memory\n");
        return nullptr;
    }
    // An existing object is mapped at the size it has: a short one must not be touched.
    if (memory->size() >= sizeof(DomainHeader)) {
        auto segment = std::make_shared<DomainSegment>(std::move(memory));
        segment->initDomainSharedMemory(domainName);
        if (segment->loadDomainSharedMemory()) {
            return segment;
        }
    }
    ORBEL_LOG_ERROR("Failed to load domain shared memory\n");
    return nullptr;
}

/// Fills in a new segment, the magic last: whoever dies before that leaves one that counts as new.
void DomainSegment::initDomainSharedMemory(const std::string& domainName) {
    DomainHeader& header = *mHeader;
    if (header.magic.load() != 0) {
        return;  // complete, or somebody else's
    }
    ORBEL_LOG_INFO(" Initializing domain shared memory: %s\n", domainName.c_str());
    header.ready.store(0);
    header.nodeCount.store(0);
    header.poolCount.store(0);
    header.masterPid.store(static_cast<uint32_t>(getpid()));
    header.version = kDomainVersion;
    std::memset(static_cast<void*>(header.pools), 0, sizeof header.pools);
    new (&header.lock) SHMMutex();
    std::memset(header.reserved, 0, sizeof header.reserved);
    for (unsigned int slot = 0; slot < kMaxNodes; ++slot) {
        header.nodes[slot].lastCheckTime.store(0);
        freeSlot(slot);
    }
    header.ready.store(1);
    header.magic.store(kDomainMagic);
}

bool DomainSegment::loadDomainSharedMemory() {
    return mHeader->magic.load() == kDomainMagic;
}

std::optional<unsigned int> DomainSegment::claimSlot() {
    for (unsigned int slot = 0; slot < kMaxNodes; ++slot) {
        NodeState expected = NodeState::Free;
        if (node(slot).state.compareExchange(expected, NodeState::Claimed)) {
            return slot;
        }
    }
    return std::nullopt;
}

void DomainSegment::fillSlot(unsigned int slot, const std::string& name, unsigned long nodeId) {
    NodeInfo& entry = node(slot);
    entry.nodeId.store(nodeId);
    copyName(entry.name, name.c_str());
    entry.pid.store(getpid());
    entry.state.store(NodeState::Claimed);
}

void DomainSegment::freeSlot(unsigned int slot) {
    NodeInfo& entry = node(slot);
    entry.pid.store(-1);
    entry.nodeId.store(0);
    std::memset(entry.name, 0, sizeof entry.name);
    entry.state.store(NodeState::Free);  // last: the slot can be claimed from here on
}

std::optional<unsigned int> DomainSegment::findNode(unsigned long nodeId) const {
    if (nodeId == 0) {
        return std::nullopt;
    }
    for (unsigned int slot = 0; slot < kMaxNodes; ++slot) {
        if (node(slot).nodeId.load() == nodeId) {
            return slot;
        }
    }
    return std::nullopt;
}

std::optional<NodeEntry> DomainSegment::findAliveNode(unsigned long nodeId) {
    const Lock lock(*this);
    const auto slot = findNode(nodeId);
    if (!lock.held() || !slot || node(*slot).state.load() != NodeState::Alive) {
        return std::nullopt;
    }
    return NodeEntry{shared_from_this(), *slot, nodeId, storedName(node(*slot).name)};
}

bool DomainSegment::nodeAlive(unsigned long nodeId) const {
    const auto slot = findNode(nodeId);
    return slot && node(*slot).state.load() == NodeState::Alive;
}

bool DomainSegment::nodeAlive(unsigned int slot, unsigned int tag) const {
    if (slot >= kMaxNodes || tag == 0) {
        return false;
    }
    const NodeInfo& entry = node(slot);
    const uint64_t nodeId = entry.nodeId.load();
    return nodeId != 0 && entry.pid.load() >= 0 && entry.state.load() == NodeState::Alive &&
           writerTag(nodeId) == tag;
}

}  // namespace Vantel::Orbel
