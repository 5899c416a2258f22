#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "Vantel/Orbel/CProcessMutex.h"
#include "Vantel/Orbel/SharedMemDomain.h"
#include "ipc/CallbackWorker.h"
#include "ipc/DomainPools.h"
#include "ipc/DomainSegment.h"
#include "ipc/NodeDirectory.h"
#include "ipc/ProxyCache.h"

namespace Vantel::Orbel {

class EventLoop;
class EventLoopThread;
class IThreadTask;
class SharedMemNodeImpl;
class SharedMemPool;
class SharedMemReaderProxy;
class SharedMemWriterProxy;

/// The one implementation of a domain. Owned by a shared pointer.
///
/// Locks, in this order: the process mutex (init only), mMutex or the mutex of the pools, the
/// segment's lock; mSegmentMutex and those of the proxy caches are leaves. mMutex is held for map
/// operations only: nodes are closed, proxies built and closed, messages handled outside it, since
/// all of these may wait for the loop, whose check() takes it. mLoopGate is held shared while a
/// proxy is built on the loop, and exclusively to take the loop away before it ends.
class SharedDomainImpl : public SharedMemDomain,
                         public NodeDirectory,
                         public std::enable_shared_from_this<SharedDomainImpl> {
public:
    explicit SharedDomainImpl(const std::string& name);
    ~SharedDomainImpl() override;

    bool deInit() override;
    std::string domainName() const override { return mDomainName; }
    bool destroyNode(const std::string& name) override;
    bool init(const Json::Value& config) override;
    std::shared_ptr<SharedMemNode> createNode(const std::string& name) override;
    void setPoolConfigs(const std::vector<PoolConfig>& configs) override;
    bool check() override;

    /// Size of the domain's segment.
    static constexpr unsigned int calculateMemorySize() { return sizeof(DomainHeader); }

    std::shared_ptr<SharedMemPool> createPool(const std::string& name, unsigned int blockSize,
                                              unsigned int extraSize, unsigned int blockCount);
    std::shared_ptr<SharedMemPool> getPool(unsigned int poolId);
    std::shared_ptr<SharedMemPool> findPoolBySize(unsigned int size, unsigned int extraSize);

    /// Table entries, null if there is none; they stay mapped until deInit().
    PoolInfo* getPoolInfo(unsigned int poolId);
    NodeInfo* getNodeInfo(unsigned long nodeId);

    bool checkNodeAlive(unsigned long nodeId) override;
    bool checkNodeAlive(unsigned int slot, unsigned int tag) override;
    bool notifyWriter(unsigned long writerId, unsigned long channelId, unsigned long sequence,
                      BlockHeader* block) override;

    /// The connection to a node, made on first use. Null if the node is not alive.
    std::shared_ptr<SharedMemReaderProxy> getReaderProxy(unsigned long nodeId);
    std::shared_ptr<SharedMemWriterProxy> getWriterProxy(unsigned long nodeId);
    /// Drops both proxies of a node.
    void removeNode(unsigned long nodeId);

    /// Null while the domain is not joined.
    EventLoop* getEventLoop() const { return mLoop.load(); }

    /// Hands a read callback to the worker; false, with the task deleted, if that cannot be.
    bool postAsyncTask(IThreadTask* task) { return mWorker.post(task); }
    /// Called once by each posted task when it is destroyed.
    void onAsyncTaskDone() { mWorker.onTaskDone(); }

    /// As long as it is held, the loop that getEventLoop() returned does not end.
    using LoopHold = std::shared_lock<std::shared_mutex>;
    LoopHold holdLoop() { return LoopHold(mLoopGate); }
    bool joined() const { return mInitialized; }

    /// True in the loop's and in the worker's thread.
    bool isOwnThread() const;

private:
    using NodeMap = std::map<std::string, std::shared_ptr<SharedMemNodeImpl>>;
    struct LoopSettings;

    std::shared_ptr<DomainSegment> segment() const;
    bool join(const LoopSettings& settings);
    bool startLoopThread(const LoopSettings& settings);
    void cancelCheckTimer();
    void stopLoopThread();
    static void retire(SharedMemNodeImpl& node);

    void checkNodes();
    bool checkMasterProcess(DomainSegment& segment) const;
    bool checkProcessAlive(int pid) const;
    bool checkAndCleanupNode(DomainSegment& segment, unsigned int slot) const;
    void checkAndCleanupPools();
    void dropLocalNode(unsigned long nodeId);
    std::vector<std::shared_ptr<SharedMemNodeImpl>> localNodes() const;
    std::shared_ptr<SharedMemNodeImpl> localNode(unsigned long nodeId) const;

    template <class Proxy>
    std::shared_ptr<Proxy> getProxy(ProxyCache<Proxy>& proxies, unsigned long nodeId);
    template <class Proxy>
    std::shared_ptr<Proxy> buildProxy(ProxyCache<Proxy>& proxies, unsigned long nodeId);

    const std::string mDomainName;
    const int mPid;
    unsigned long mCheckTimerId = 0;  // loop thread only
    std::atomic<bool> mInitialized{false};
    std::atomic<bool> mLeaving{false};  // deInit() is under way
    mutable std::mutex mMutex;          // over mNodes
    CProcessMutex mProcessMutex;
    mutable std::mutex mSegmentMutex;
    std::shared_ptr<DomainSegment> mSegment;
    std::unique_ptr<EventLoopThread> mLoopThread;
    std::shared_mutex mLoopGate;
    std::atomic<EventLoop*> mLoop{nullptr};
    CallbackWorker mWorker;
    NodeMap mNodes;
    ProxyCache<SharedMemReaderProxy> mReaderProxies;
    ProxyCache<SharedMemWriterProxy> mWriterProxies;
    std::vector<PoolConfig> mPoolConfigs;
    DomainPools mPools;
};

}  // namespace Vantel::Orbel
