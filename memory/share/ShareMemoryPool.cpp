#include "Vantel/Memory/ShareMemoryPool.h"

#include "Vantel/Orbel/CTimer.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "memory/share/Buddy.h"
#include "memory/share/BuddyZone.h"
#include "memory/share/MemoryRefer.h"
#include "memory/share/ProcessMutex.h"
#include "memory/share/SmallMemory.h"

namespace Vantel::Memory {

namespace {

constexpr uint32_t kCleanPeriodMs = 1000;
constexpr uint32_t kCleanTimeoutMs = 60000;  // a round that takes longer is reported as overdue

}  // namespace

class ShareMemoryPool::Internal {
public:
    Internal(Buddy* buddy, MemoryRefer* refer, SmallMemory* smallMem)
        : mBuddy(buddy), mRefer(refer), mSmallMem(smallMem) {}

    Buddy* buddy() const {
        ORBEL_REQUIRE(mBuddy != nullptr, "mBuddy != osNullptr\n");
        return mBuddy;
    }
    MemoryRefer* refer() const {
        ORBEL_REQUIRE(mRefer != nullptr, "mRefer != osNullptr\n");
        return mRefer;
    }
    void requireBoth() const {
        ORBEL_REQUIRE(mBuddy != nullptr && mRefer != nullptr,
                      "mBuddy != osNullptr && mRefer != osNullptr\n");
    }

    Buddy* mBuddy;
    MemoryRefer* mRefer;
    SmallMemory* mSmallMem;
    Orbel::CTimer mTimer{"shareMemoryExpireClean"};
    ProcessMutex mMutex{kMutexPool};  // locked by nothing
};

ShareMemoryPool::ShareMemoryPool(Buddy* buddy, MemoryRefer* refer, SmallMemory* smallMem)
    : mInternal(std::make_unique<Internal>(buddy, refer, smallMem)) {}

ShareMemoryPool::~ShareMemoryPool() {
    mInternal->mTimer.stopAndWait();
    mInternal->mRefer->destroy(mInternal->mRefer);
    mInternal->mSmallMem->destroy(mInternal->mSmallMem);  // ends the process, as it stands
    mInternal->mBuddy->destroy(mInternal->mBuddy);
}

void ShareMemoryPool::destroy() {
    delete this;
}

void* ShareMemoryPool::malloc(int32_t& size) {
    mInternal->requireBoth();
    Buddy* const buddy = mInternal->mBuddy;
    int32_t granted = size;
    void* const block = size < 0 ? nullptr : buddy->malloc(buddy, &granted);
    if (block == nullptr) {
        ORBEL_LOG_ERROR("Buddy malloc failed.\n");
        return nullptr;
    }
    int32_t offset = 0;
    if (buddy->getOffset(buddy, block, &offset) != 0) {
        ORBEL_LOG_ERROR("Buddy getOffset failed.\n");
        buddy->free(buddy, block);
        return nullptr;
    }
    if (mInternal->mRefer->addRefer(mInternal->mRefer, offset) != 0) {
        ORBEL_LOG_ERROR("MemRefer add refer failed.\n");
        buddy->free(buddy, block);
        return nullptr;
    }
    size = granted;
    return block;
}

bool ShareMemoryPool::free(void* addr) {
    mInternal->requireBoth();
    if (addr == nullptr) {
        ORBEL_LOG_ERROR("addr equal NULL, error.\n");
        return false;
    }
    int32_t offset = 0;
    if (mInternal->mBuddy->getOffset(mInternal->mBuddy, addr, &offset) != 0) {
        ORBEL_LOG_ERROR("Buddy getOffset failed.\n");
        return false;
    }
    // The last reference takes the block with it.
    if (mInternal->mRefer->releaseRefer(mInternal->mRefer, offset) != 0) {
        ORBEL_LOG_ERROR("MemRefer release refer for addr[%p] failed.\n", addr);
        return false;
    }
    return true;
}

void* ShareMemoryPool::getMemory(int32_t offset) {
    mInternal->requireBoth();
    void* const block = mInternal->mBuddy->getAddress(mInternal->mBuddy, offset);
    // The buddy also takes the upper half of a merged free block for a block in use. Only what has
    // a reference is one; to ask and to add must be one step, or the cleaner comes in between.
    if (block == nullptr || addReferIfKnown(mInternal->mRefer, offset) != 0) {
        return nullptr;
    }
    return block;
}

bool ShareMemoryPool::getOffset(void* buf, int32_t& offset) {
    Buddy* const buddy = mInternal->buddy();
    if (buf == nullptr) {
        ORBEL_LOG_ERROR("buf equal osNullptr, error.\n");
        return false;
    }
    return buddy->getOffset(buddy, buf, &offset) == 0;
}

bool ShareMemoryPool::incDeliverRef(void* mem) {
    mInternal->requireBoth();
    if (mem == nullptr) {
        ORBEL_LOG_ERROR("mem equal osNullptr, error.\n");
        return false;
    }
    int32_t offset = 0;
    return getOffset(mem, offset) &&
           mInternal->mRefer->incDeliverRef(mInternal->mRefer, offset) == 0;
}

bool ShareMemoryPool::decDeliverRef(void* mem) {
    mInternal->requireBoth();
    if (mem == nullptr) {
        ORBEL_LOG_ERROR("mem equal NULL, error.\n");
        return false;
    }
    int32_t offset = 0;
    return getOffset(mem, offset) &&
           mInternal->mRefer->decDeliverRef(mInternal->mRefer, offset) == 0;
}

bool ShareMemoryPool::expireClean() {
    MemoryRefer* const refer = mInternal->refer();
    return refer->expireClean(refer) == 0;
}

bool ShareMemoryPool::freeResourceByPid(int32_t pid) {
    MemoryRefer* const refer = mInternal->refer();
    return refer->releaseByPid(refer, pid) == 0;
}

bool ShareMemoryPool::getMemoryPoolParam(Param& param) {
    BuddyConfig config{};
    getBuddyConfig(mInternal->buddy(), config);
    param.type = 0;
    param.dataSize = config.dataSize;
    param.pageSize = config.pageSize;
    param.orderNum = config.orderNum;
    return true;
}

bool ShareMemoryPool::getTotalSize(uint32_t& size) {
    Buddy* const buddy = mInternal->buddy();
    ORBEL_REQUIRE(buddy->getTotalSize != nullptr, "mBuddy->getTotalSize != osNullptr\n");
    size = static_cast<uint32_t>(buddy->getTotalSize(buddy));
    return true;
}

bool ShareMemoryPool::getFreeSize(uint32_t& size) {
    Buddy* const buddy = mInternal->buddy();
    ORBEL_REQUIRE(buddy->getFreeSize != nullptr, "mBuddy->getFreeSize != osNullptr\n");
    size = static_cast<uint32_t>(buddy->getFreeSize(buddy));
    return true;
}

void ShareMemoryPool::dumpInfo() {
    Buddy* const buddy = mInternal->buddy();
    ORBEL_REQUIRE(buddy->printNodeInfo != nullptr, "mBuddy->printNodeInfo != osNullptr\n");
    buddy->printNodeInfo(buddy);
}

void ShareMemoryPool::timerProc(uint64_t /*param*/) {
    MemoryRefer* const refer = mInternal->refer();
    refer->expireClean(refer);
}

/// For the creator of the pool: once a second from now on.
bool ShareMemoryPool::startCleaning() {
    return mInternal->mTimer.start({this, &ShareMemoryPool::timerProc}, 0, kCleanPeriodMs, 0,
                                   kCleanTimeoutMs);
}

/// Bytes of the block in use at `offset`, which the caller holds; 0 if none is there.
uint32_t ShareMemoryPool::blockSize(int32_t offset) const {
    const BuddyPrivateData& priv = *mInternal->buddy()->internal;
    const int32_t order = allocatedOrderAt(priv, static_cast<uint32_t>(offset) >> priv.pageShift);
    return order < 0 ? 0 : priv.config.pageSize << order;
}

}  // namespace Vantel::Memory
