#include <signal.h>

#include <cerrno>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemPool.h"
#include "ipc/SharedMemReaderProxy.h"
#include "ipc/SharedMemWriterProxy.h"

/// The pass of every 100 ms: who has died, and what of theirs has to be given back.
namespace Vantel::Orbel {

namespace {

constexpr uint64_t kNodeCheckIntervalUs = 5000;
constexpr unsigned long kBlockTimeoutUs = 5000000;

struct DeadNode {
    std::string name;
    int pid;
    unsigned long nodeId;
};

}  // namespace

bool SharedDomainImpl::check() {
    if (!mInitialized) {
        return true;  // a pass during deInit() would attach pools again
    }
    checkNodes();
    checkAndCleanupPools();
    for (const auto& node : localNodes()) {
        node->checkAndCleanupChannels();
    }
    mReaderProxies.dropInvalid();
    mWriterProxies.dropInvalid();
    return true;
}

/// The blocks of a dead node need nothing here: with its entry gone its liveness turns false, and
/// the pool pass acts on them.
void SharedDomainImpl::checkNodes() {
    const auto held = segment();
    if (held == nullptr || !checkMasterProcess(*held)) {
        return;
    }
    // Cleared under the lock, dropped outside it: mMutex comes before the segment's lock.
    std::vector<DeadNode> dead;
    {
        const DomainSegment::Lock lock(*held);
        for (unsigned int slot = 0; lock.held() && slot < kMaxNodes; ++slot) {
            const NodeInfo& entry = held->node(slot);
            DeadNode found{storedName(entry.name), entry.pid.load(), entry.nodeId.load()};
            if (checkAndCleanupNode(*held, slot)) {
                dead.push_back(std::move(found));
            }
        }
    }
    for (const DeadNode& node : dead) {
        ORBEL_LOG_INFO(" Node %s (pid=%d, nodeId=%lu) is dead, cleaning up blocks\n",
                       node.name.c_str(), node.pid, node.nodeId);
        dropLocalNode(node.nodeId);
        removeNode(node.nodeId);
    }
}

/// Takes the role over from a dead master. True if this process is the master.
bool SharedDomainImpl::checkMasterProcess(DomainSegment& segment) const {
    const auto own = static_cast<uint32_t>(mPid);
    uint32_t master = segment.header().masterPid.load();
    if (master != own && !checkProcessAlive(static_cast<int>(master))) {
        segment.header().masterPid.compareExchange(master, own);
        master = segment.header().masterPid.load();
    }
    return master == own;
}

/// A process that may not be signalled exists. Numbers below 1 are no process: kill() would take
/// them for groups.
bool SharedDomainImpl::checkProcessAlive(int pid) const {
    return pid == mPid || (pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH));
}

/// Under the segment's lock. True if the entry was a dead node's, and has been cleared.
bool SharedDomainImpl::checkAndCleanupNode(DomainSegment& segment, unsigned int slot) const {
    NodeInfo& entry = segment.node(slot);
    const int pid = entry.pid.load();
    if (entry.state.load() == NodeState::Free) {
        return false;
    }
    if (pid < 0) {
        // Who claims or frees a slot does it under this lock: this one died inside it.
        segment.freeSlot(slot);
        return false;
    }
    const uint64_t now = CTime::getCurrentMicroSecond();
    if (now - entry.lastCheckTime.load() < kNodeCheckIntervalUs) {
        return false;
    }
    if (checkProcessAlive(pid)) {
        entry.lastCheckTime.store(now);
        return false;
    }
    segment.freeSlot(slot);
    segment.header().nodeCount.lower();
    return true;
}

/// A node of ours whose entry names a dead process: the table was damaged, or it was made before a
/// fork.
void SharedDomainImpl::dropLocalNode(unsigned long nodeId) {
    std::vector<std::shared_ptr<SharedMemNodeImpl>> dropped;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        for (auto at = mNodes.begin(); at != mNodes.end();) {
            const auto next = std::next(at);
            if (at->second->createdId() == nodeId) {
                dropped.push_back(std::move(at->second));
                mNodes.erase(at);
            }
            at = next;
        }
    }
    for (const auto& node : dropped) {
        retire(*node);
    }
}

void SharedDomainImpl::checkAndCleanupPools() {
    const auto held = segment();
    if (held == nullptr || held->header().masterPid.load() != static_cast<uint32_t>(mPid)) {
        return;
    }
    for (unsigned int id = 0; id < kMaxPools; ++id) {
        if (const auto pool = mPools.get(*held, id)) {
            pool->checkAndCleanup(kBlockTimeoutUs);
        }
    }
}

}  // namespace Vantel::Orbel
