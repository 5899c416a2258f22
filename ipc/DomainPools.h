#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Vantel/Orbel/SharedMemDomain.h"
#include "ipc/DomainSegment.h"

namespace Vantel::Orbel {

class NodeDirectory;
class SharedMemPool;

/// The pools of a domain that this process has attached; index = pool id.
///
/// Threads: any. Lookups take no lock: a pool's slot is stored once, after the pool is complete
/// (release, read with acquire), and what it points at lives until this object dies, so that a
/// lookup may race with closeAll(). The mutex serialises creation and teardown, and comes before
/// the segment's lock.
class DomainPools {
public:
    /// `directory` answers the pools' questions about nodes and outlives this object.
    DomainPools(const std::string& domainName, NodeDirectory& directory);
    DomainPools(const DomainPools&) = delete;
    DomainPools& operator=(const DomainPools&) = delete;
    ~DomainPools();

    /// Attaches the pools that the domain has, or makes those of `configs` if it has none. False,
    /// with the pools made so far left in place, if one of them cannot be made.
    bool initPools(DomainSegment& segment, const std::vector<SharedMemDomain::PoolConfig>& configs);

    /// A new pool, or the existing one of that name with whatever sizes it has. Null on failure.
    std::shared_ptr<SharedMemPool> create(DomainSegment& segment,
                                          const SharedMemDomain::PoolConfig& config);

    /// The pool of the table, attached on first use. Null if there is none or it cannot be
    /// attached.
    std::shared_ptr<SharedMemPool> get(DomainSegment& segment, unsigned int poolId);
    /// The pool if it is attached already.
    std::shared_ptr<SharedMemPool> attached(unsigned int poolId) const;

    /// The attached pool with the smallest blocks that fit, of these the one with the lowest id.
    std::shared_ptr<SharedMemPool> findBySize(unsigned int size, unsigned int extraSize) const;

    /// Detaches all pools.
    void closeAll();

private:
    struct Slot;
    using Config = SharedMemDomain::PoolConfig;

    std::shared_ptr<SharedMemPool> createUnlocked(DomainSegment& segment, const Config& config);
    std::shared_ptr<SharedMemPool> findByName(DomainSegment& segment, const std::string& name);
    std::shared_ptr<SharedMemPool> make(unsigned int poolId, const Config& config);
    void publish(unsigned int poolId, std::shared_ptr<SharedMemPool> pool);
    void loadExisting(DomainSegment& segment);

    const std::string mDomainName;
    NodeDirectory& mDirectory;
    std::mutex mMutex;
    std::array<std::atomic<Slot*>, kMaxPools> mSlots{};
    std::vector<std::unique_ptr<Slot>> mRetired;  // guarded by mMutex
};

}  // namespace Vantel::Orbel
