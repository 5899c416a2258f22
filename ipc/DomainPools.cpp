#include "ipc/DomainPools.h"

#include "frame/base/CopyName.h"
#include "frame/base/Log.h"
#include "ipc/SharedMemPool.h"

namespace Vantel::Orbel {

/// One attached pool. Never changed once a lookup can see it.
struct DomainPools::Slot {
    std::shared_ptr<SharedMemPool> pool;
};

namespace {

bool valid(const SharedMemDomain::PoolConfig& config) {
    if (!config.name.empty() && config.blockSize != 0 && config.blockCount != 0) {
        return true;
    }
    ORBEL_LOG_ERROR("Invalid pool config: name=%s, blockSize=%u, blockCount=%u\n",
                    config.name.c_str(), config.blockSize, config.blockCount);
    return false;
}

/// What the table says about a pool: a copy, since others may write there.
SharedMemDomain::PoolConfig configOf(const PoolInfo& info) {
    return {storedName(info.name), info.blockSize.load(), info.extraSize.load(),
            info.blockCount.load()};
}

bool inUse(const PoolInfo& info) {
    return info.state.load() == PoolState::InUse;
}

bool hasName(const PoolInfo& info, const std::string& name) {
    return inUse(info) && storedName(info.name) == name.substr(0, kNameSize - 1);
}

}  // namespace

DomainPools::DomainPools(const std::string& domainName, NodeDirectory& directory)
    : mDomainName(domainName), mDirectory(directory) {}

DomainPools::~DomainPools() {
    for (auto& slot : mSlots) {
        delete slot.load();
    }
}

bool DomainPools::initPools(DomainSegment& segment, const std::vector<Config>& configs) {
    std::lock_guard<std::mutex> guard(mMutex);
    if (segment.header().poolCount.load() != 0) {
        loadExisting(segment);
        return true;
    }
    if (configs.empty()) {
        ORBEL_LOG_INFO(
            " No pool configs provided and no existing pools, will mount pools when receiving "
            "data\n");
        return true;
    }
    ORBEL_LOG_INFO(" Initializing %zu pools from config\n", configs.size());
    for (const Config& config : configs) {
        if (!valid(config)) {
            continue;  // not a failure: the others are made nevertheless
        }
        if (createUnlocked(segment, config) == nullptr) {
            ORBEL_LOG_ERROR("Failed to create pool %s\n", config.name.c_str());
            return false;
        }
    }
    return true;
}

void DomainPools::loadExisting(DomainSegment& segment) {
    ORBEL_LOG_INFO(" Pools already initialized, loading existing pools\n");
    for (unsigned int id = 0; id < kMaxPools; ++id) {
        if (get(segment, id) != nullptr) {
            const Config config = configOf(segment.pool(id));
            ORBEL_LOG_INFO(
                " Loaded existing pool %s (id=%u, blockSize=%u, extraSize=%u, blockCount=%u)\n",
                config.name.c_str(), id, config.blockSize, config.extraSize, config.blockCount);
        }
    }
}

std::shared_ptr<SharedMemPool> DomainPools::create(DomainSegment& segment, const Config& config) {
    std::lock_guard<std::mutex> guard(mMutex);
    return valid(config) ? createUnlocked(segment, config) : nullptr;
}

std::shared_ptr<SharedMemPool> DomainPools::createUnlocked(DomainSegment& segment,
                                                           const Config& config) {
    const DomainSegment::Lock lock(segment);
    if (!lock.held()) {
        ORBEL_LOG_ERROR("lock of domain %s cannot be had\n", mDomainName.c_str());
        return nullptr;
    }
    if (auto existing = findByName(segment, config.name)) {
        return existing;
    }
    unsigned int id = 0;
    while (id < kMaxPools && segment.pool(id).state.load() != PoolState::Free) {
        ++id;
    }
    if (id == kMaxPools) {
        ORBEL_LOG_ERROR("No free pool slot available (max=%d)\n", static_cast<int>(kMaxPools));
        return nullptr;
    }
    auto pool = make(id, config);
    if (pool == nullptr) {
        ORBEL_LOG_ERROR("Failed to init pool %s\n", config.name.c_str());
        return nullptr;
    }
    publish(id, pool);
    PoolInfo& info = segment.pool(id);
    copyName(info.name, config.name.c_str());
    info.poolId.store(id);
    info.blockSize.store(config.blockSize);
    info.extraSize.store(config.extraSize);
    info.blockCount.store(config.blockCount);
    info.state.store(PoolState::InUse);
    segment.header().poolCount.fetchAdd(1);
    ORBEL_LOG_INFO(" Created pool %s (id=%u, blockSize=%u, extraSize=%u, blockCount=%u)\n",
                   config.name.c_str(), id, config.blockSize, config.extraSize, config.blockCount);
    return pool;
}

/// Before the table shows the pool, or a lookup in another thread would attach it a second time:
/// one process has one view of a pool.
void DomainPools::publish(unsigned int poolId, std::shared_ptr<SharedMemPool> pool) {
    auto slot = std::make_unique<Slot>(Slot{std::move(pool)});
    mRetired.emplace_back(mSlots[poolId].exchange(slot.get()));
    slot.release();
}

/// An attached pool goes before one that only stands in the table; one that cannot be attached is
/// passed over. Sizes are not compared: the pool is what it is.
std::shared_ptr<SharedMemPool> DomainPools::findByName(DomainSegment& segment,
                                                       const std::string& name) {
    for (unsigned int id = 0; id < kMaxPools; ++id) {
        auto pool = attached(id);
        if (pool != nullptr && hasName(segment.pool(id), name)) {
            ORBEL_LOG_WARN(" Pool %s already exists, reusing it\n", name.c_str());
            return pool;
        }
    }
    for (unsigned int id = 0; id < kMaxPools; ++id) {
        auto pool = hasName(segment.pool(id), name) ? get(segment, id) : nullptr;
        if (pool != nullptr) {
            ORBEL_LOG_WARN(" Found existing pool with same name (id=%u), reusing it\n", id);
            return pool;
        }
    }
    return nullptr;
}

std::shared_ptr<SharedMemPool> DomainPools::attached(unsigned int poolId) const {
    if (poolId >= kMaxPools) {
        return nullptr;
    }
    const Slot* const slot = mSlots[poolId].load(std::memory_order_acquire);
    return slot == nullptr ? nullptr : slot->pool;
}

std::shared_ptr<SharedMemPool> DomainPools::make(unsigned int poolId, const Config& config) {
    auto pool =
        std::make_shared<SharedMemPool>(poolId, mDomainName + "_" + config.name, config.blockSize,
                                        config.extraSize, config.blockCount);
    return pool->init(&mDirectory) ? pool : nullptr;
}

std::shared_ptr<SharedMemPool> DomainPools::get(DomainSegment& segment, unsigned int poolId) {
    auto pool = attached(poolId);
    if (pool != nullptr || poolId >= kMaxPools || !inUse(segment.pool(poolId))) {
        return pool;
    }
    const Config config = configOf(segment.pool(poolId));
    if (config.name.empty() || config.blockSize == 0 || config.blockCount == 0) {
        return nullptr;  // no pool is made like that: the table is damaged
    }
    pool = make(poolId, config);
    if (pool == nullptr) {
        return nullptr;
    }
    auto slot = std::make_unique<Slot>(Slot{pool});
    Slot* found = nullptr;
    // Release: who loads the slot sees the pool complete.
    if (mSlots[poolId].compare_exchange_strong(found, slot.get(), std::memory_order_acq_rel)) {
        slot.release();
        return pool;
    }
    return found->pool;  // another thread was first
}

std::shared_ptr<SharedMemPool> DomainPools::findBySize(unsigned int size,
                                                       unsigned int extraSize) const {
    const Slot* best = nullptr;
    unsigned int bestSize = 0xFFFFFFFF;  // so a pool of exactly that block size is never chosen
    for (const auto& entry : mSlots) {
        const Slot* const slot = entry.load(std::memory_order_acquire);
        if (slot == nullptr) {
            continue;
        }
        const SharedMemPool& pool = *slot->pool;
        if (size <= pool.blockSize() && extraSize <= pool.extraSize() &&
            pool.blockSize() < bestSize) {
            best = slot;
            bestSize = pool.blockSize();
        }
    }
    return best == nullptr ? nullptr : best->pool;
}

void DomainPools::closeAll() {
    std::lock_guard<std::mutex> guard(mMutex);
    for (auto& entry : mSlots) {
        std::unique_ptr<Slot> slot(entry.exchange(nullptr));
        if (slot != nullptr) {
            slot->pool->deInit();
            mRetired.push_back(std::move(slot));
        }
    }
}

}  // namespace Vantel::Orbel
