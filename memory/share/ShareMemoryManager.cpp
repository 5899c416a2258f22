#include "Vantel/Memory/ShareMemoryManager.h"

#include <atomic>
#include <cstring>

#include "Vantel/Orbel/CMutex.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "frame/base/ScopeExit.h"
#include "memory/share/Buddy.h"
#include "memory/share/LocalMemory.h"
#include "memory/share/MemoryRefer.h"
#include "memory/share/ProcessMutex.h"
#include "memory/share/ShareMemoryPoolDebug.h"
#include "memory/share/ShareZone.h"
#include "memory/share/SmallMemory.h"

namespace Vantel::Memory {

namespace {

// Names of no files: only the sums of their bytes matter.
constexpr const char* kMetaKey = "/mnt/mtd/key1";
constexpr const char* kDataKey = "/mnt/mtd/key2";

/// The four zones of the metadata segment.
struct Zones {
    ZoneHead* mutexes;
    ZoneHead* refer;
    ZoneHead* smallMem;
    ZoneHead* buddy;
};

/// Finds the zones in a segment of `segmentBytes`. False if it is too short, and while somebody
/// makes it: the sizes are zero then.
bool walkZones(uint8_t* meta, size_t segmentBytes, Zones& zones) {
    constexpr uint32_t kLeast[] = {kMutexZoneSize, kReferZoneSize, kSmallMemZoneSize,
                                   sizeof(ZoneHead) + sizeof(BuddyInfo)};
    ZoneHead** const heads[] = {&zones.mutexes, &zones.refer, &zones.smallMem, &zones.buddy};
    size_t offset = 0;
    for (size_t i = 0; i < std::size(heads); ++i) {
        if (segmentBytes - offset < sizeof(ZoneHead) || offset % alignof(uint64_t) != 0) {
            return false;
        }
        *heads[i] = reinterpret_cast<ZoneHead*>(meta + offset);
        // Relaxed: a creator may be at it; poolReady() has the order.
        const uint32_t size = std::atomic_ref((*heads[i])->size).load(std::memory_order_relaxed);
        if (size < kLeast[i] || size > segmentBytes - offset) {
            return false;
        }
        offset += size;
    }
    return true;
}

/// Whether the zones hold a pool. Their creator completes that of the references last.
bool poolReady(const Zones& zones) {
    return zoneReady(zones.refer) && zoneReady(zones.mutexes) && zoneReady(zones.buddy) &&
           zoneReady(zones.smallMem);
}

/// Clears fresh segments and writes the sizes of the zones.
void layOut(uint8_t* meta, size_t metaBytes, uint8_t* data, size_t dataBytes, uint32_t buddyBytes) {
    std::memset(meta, 0, metaBytes);
    std::memset(data, 0, dataBytes);
    for (const uint32_t size : {kMutexZoneSize, kReferZoneSize, kSmallMemZoneSize, buddyBytes}) {
        std::atomic_ref(reinterpret_cast<ZoneHead*>(meta)->size)
            .store(size, std::memory_order_relaxed);
        meta += size;
    }
}

BuddyConfig buddyConfigOf(const ShareMemoryPool::Param& param) {
    // The guards are set page by page.
    const auto systemPage = static_cast<uint32_t>(getPageSize());
    return {param.dataSize, param.debugMode != 0 ? systemPage : param.pageSize, param.orderNum};
}

/// A table of the buddy that fits its segment; null with an error line.
Buddy* attachBuddy(const BuddyConfig& config, ZoneHead* zone, uint8_t* data, size_t dataBytes) {
    Buddy* buddy = nullptr;
    if (createBuddy(config, zone, data, &buddy) != 0) {
        ORBEL_LOG_ERROR("createBuddy failed.\n");
        return nullptr;
    }
    BuddyConfig found{};
    getBuddyConfig(buddy, found);
    if (found.dataSize > dataBytes) {
        ORBEL_LOG_ERROR("createBuddy failed.\n");
        buddy->destroy(buddy);
        return nullptr;
    }
    return buddy;
}

}  // namespace

class ShareMemoryManager::Internal {
public:
    struct Segments {
        uint8_t* meta;
        uint8_t* data;
    };
    struct States {
        ShareMemState meta;
        ShareMemState data;

        bool operator==(const States&) const = default;
    };

    bool getSegments(int32_t metaSize, int32_t dataSize, int32_t flags, Segments& segments) const;
    void releaseSegments(const Segments& segments, int32_t how) const;
    ShareMemoryPool* load(const ShareMemoryPool::Param& param, bool creating);

    uint32_t mRefCount = 0;
    Orbel::CMutex mMutex;  // around loading; the pool's own locks are taken inside it
    std::atomic<ShareMemoryPool*> mSharePool{nullptr};
    SegmentGet mSegmentGet = shareMemGet;
    SegmentRelease mSegmentRelease = shareMemRelease;

private:
    States states() const;
    ShareMemoryPool* attach(const ShareMemoryPool::Param& param, const Segments& segments,
                            const States& found, bool creating) const;
};

/// Both or none; with sizes of 0 they are taken as they are.
bool ShareMemoryManager::Internal::getSegments(int32_t metaSize, int32_t dataSize, int32_t flags,
                                               Segments& segments) const {
    segments.meta = static_cast<uint8_t*>(mSegmentGet(kMetaKey, metaSize, flags));
    if (segments.meta == nullptr) {
        ORBEL_LOG_ERROR("shareMemGet failed.\n");
        return false;
    }
    segments.data = static_cast<uint8_t*>(mSegmentGet(kDataKey, dataSize, flags));
    if (segments.data == nullptr) {
        ORBEL_LOG_ERROR("shareMemGet failed.\n");
        if ((flags & kShareMemCreate) != 0) {
            mSegmentRelease(kMetaKey, segments.meta, kShareMemRemove);
        }
        mSegmentRelease(kMetaKey, segments.meta, kShareMemDetach);
        return false;
    }
    return true;
}

void ShareMemoryManager::Internal::releaseSegments(const Segments& segments, int32_t how) const {
    mSegmentRelease(kMetaKey, segments.meta, how);
    mSegmentRelease(kDataKey, segments.data, how);
}

/// What the keys name now. Whoever replaced the source of the segments vouches for their sizes.
ShareMemoryManager::Internal::States ShareMemoryManager::Internal::states() const {
    constexpr ShareMemState kUnknown{-1, SIZE_MAX};
    return mSegmentGet == shareMemGet ? States{shareMemState(kMetaKey), shareMemState(kDataKey)}
                                      : States{kUnknown, kUnknown};
}

/// The pool over mapped segments, which were `found` before; null with an error line.
ShareMemoryPool* ShareMemoryManager::Internal::attach(const ShareMemoryPool::Param& param,
                                                      const Segments& segments, const States& found,
                                                      bool creating) const {
    Zones zones{};
    // Only the creator sets zones up: two at it would each undo what the other has done. A creator
    // may have replaced one segment before it was mapped and the other after: both are of one pool
    // if the keys name the same ones still, now that the pool is seen complete.
    if (!walkZones(segments.meta, found.meta.bytes, zones) || !(creating || poolReady(zones)) ||
        states() != found) {
        ORBEL_LOG_ERROR("shareMemGet failed.\n");
        return nullptr;
    }
    if (initProcessMutex(zones.mutexes) != 0) {
        ORBEL_LOG_ERROR("initProcessMutex failed.\n");
        return nullptr;
    }
    Buddy* const buddy =
        attachBuddy(buddyConfigOf(param), zones.buddy, segments.data, found.data.bytes);
    if (buddy == nullptr) {
        return nullptr;
    }
    SmallMemory* smallMem = nullptr;
    if (createSmallMem(zones.smallMem, buddy, &smallMem) != 0) {
        ORBEL_LOG_ERROR("createSmallMem failed.\n");
        buddy->destroy(buddy);
        return nullptr;
    }
    MemoryRefer* refer = nullptr;
    if (createMemRefer(zones.refer, smallMem, buddy, &refer) != 0) {
        ORBEL_LOG_ERROR("createMemRefer failed.\n");
        smallMem->destroy(smallMem);  // ends the process, as it stands
        buddy->destroy(buddy);
        return nullptr;
    }
    if (param.debugMode != 0) {
        return new ShareMemoryPoolDebug(buddy, refer, smallMem, param.debugMode);
    }
    return new ShareMemoryPool(buddy, refer, smallMem);
}

ShareMemoryPool* ShareMemoryManager::Internal::load(const ShareMemoryPool::Param& param,
                                                    bool creating) {
    Orbel::Guard<Orbel::CMutex> guard(mMutex);
    ShareMemoryPool* pool = mSharePool.load(std::memory_order_relaxed);
    if (pool != nullptr) {
        return pool;  // not counted, as it stands
    }
    const States found = states();
    Segments segments{};
    if (!getSegments(0, 0, 0, segments)) {
        return nullptr;
    }
    pool = attach(param, segments, found, creating);
    if (pool == nullptr) {
        releaseSegments(segments, kShareMemDetach);
        return nullptr;
    }
    ++mRefCount;
    // Release pairs with getMemPool(), which takes no lock: the pool is seen complete.
    mSharePool.store(pool, std::memory_order_release);
    return pool;
}

ShareMemoryManager* ShareMemoryManager::instance() {
    static ShareMemoryManager* const manager = new ShareMemoryManager;
    return manager;
}

ShareMemoryManager::ShareMemoryManager() : mInternal(std::make_unique<Internal>()) {}
ShareMemoryManager::~ShareMemoryManager() = default;

ShareMemoryPool* ShareMemoryManager::loadMemPool(ShareMemoryPool::Param* param) {
    if (param == nullptr || param->type != 0) {
        ORBEL_LOG_ERROR("param invalid\n");
        return nullptr;
    }
    // Packets come here for each block: without the lock once there is a pool.
    ShareMemoryPool* const pool = getMemPool();
    return pool != nullptr ? pool : mInternal->load(*param, false);
}

bool ShareMemoryManager::createMemPool(ShareMemoryPool::Param* param) {
    if (param == nullptr || param->type != 0) {
        ORBEL_LOG_ERROR("pool type error.\n");
        return false;
    }
    const int32_t zoneBytes = getBuddyZoneSize(buddyConfigOf(*param));
    const auto buddyBytes = static_cast<uint32_t>(zoneBytes) + uint32_t{sizeof(ZoneHead)};
    const uint32_t metaBytes = kMutexZoneSize + kReferZoneSize + kSmallMemZoneSize + buddyBytes;
    Internal::Segments segments{};
    // What fits no segment comes as a negative size, which is refused.
    if (!mInternal->getSegments(zoneBytes < 0 ? -1 : static_cast<int32_t>(metaBytes),
                                static_cast<int32_t>(param->dataSize), kShareMemCreate, segments)) {
        return false;
    }
    Orbel::ScopeExit detach([&] { mInternal->releaseSegments(segments, kShareMemDetach); });
    layOut(segments.meta, metaBytes, segments.data, param->dataSize, buddyBytes);
    ShareMemoryPool* const pool = mInternal->load(*param, true);
    if (pool == nullptr || !pool->startCleaning()) {
        ORBEL_LOG_ERROR("loadMemPool failed.\n");
        mInternal->releaseSegments(segments, kShareMemRemove);
        return false;
    }
    return true;
}

ShareMemoryPool* ShareMemoryManager::getMemPool() {
    return mInternal->mSharePool.load(std::memory_order_acquire);
}

void ShareMemoryManager::releaseMemPool() {
    Orbel::Guard<Orbel::CMutex> guard(mInternal->mMutex);
    if (mInternal->mRefCount == 0 || --mInternal->mRefCount > 0) {
        return;
    }
    mInternal->mSharePool.exchange(nullptr)->destroy();  // ends the process, as it stands
}

bool ShareMemoryManager::getMemFreeSize(uint32_t& size) {
    ShareMemoryPool* const mSharePool = getMemPool();
    ORBEL_REQUIRE(mSharePool != nullptr, "mSharePool != osNullptr\n");
    return mSharePool->getFreeSize(size);
}

bool ShareMemoryManager::getMemSize(uint32_t& size) {
    ShareMemoryPool* const mSharePool = getMemPool();
    ORBEL_REQUIRE(mSharePool != nullptr, "mSharePool != osNullptr\n");
    return mSharePool->getTotalSize(size);
}

void ShareMemoryManager::dumpInfo() {
    ShareMemoryPool* const mSharePool = getMemPool();
    ORBEL_REQUIRE(mSharePool != nullptr, "mSharePool != osNullptr\n");
    mSharePool->dumpInfo();
}

bool ShareMemoryManager::removeMemPool() {
    // Refused for want of an address, as it stands.
    const int32_t meta = mInternal->mSegmentRelease(kMetaKey, nullptr, kShareMemRemove);
    const int32_t data = mInternal->mSegmentRelease(kDataKey, nullptr, kShareMemRemove);
    return meta == 0 && data == 0;
}

void ShareMemoryManager::setLocalMemory(Allocate allocate, Release release) {
    exchangeLocalMemoryHooks({allocate, release});
}

void ShareMemoryManager::setSegments(SegmentGet get, SegmentRelease release) {
    mInternal->mSegmentGet = get != nullptr ? get : shareMemGet;
    mInternal->mSegmentRelease = release != nullptr ? release : shareMemRelease;
}

}  // namespace Vantel::Memory
