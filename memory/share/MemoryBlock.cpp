#include "memory/share/MemoryBlock.h"

#include <cstring>

#include "Vantel/Memory/ShareMemoryManager.h"
#include "Vantel/Orbel/CMutex.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "memory/share/BlockDescription.h"
#include "memory/share/MemoryBlockPool.h"

namespace Vantel::Memory {

namespace {

/// What outlives all static objects: packets of static storage duration still let go of blocks.
struct ClaimState {
    Orbel::CMutex claimMutex;  // before the lock of the map
    Orbel::CMutex paramMutex;
    ShareMemoryPool::Param param{};
};

ClaimState& claimState() {
    static ClaimState& state = *new ClaimState;
    return state;
}

ShareMemoryPool& requirePool() {
    ShareMemoryManager& manager = *ShareMemoryManager::instance();
    ShareMemoryPool* memoryPool = manager.getMemPool();
    if (memoryPool == nullptr) {
        ShareMemoryPool::Param param = knownPoolParam();
        memoryPool = manager.loadMemPool(&param);
    }
    ORBEL_REQUIRE(memoryPool != nullptr, "osNullptr != memoryPool\n");
    return *memoryPool;
}

void learnPoolParam(const BlockDescription& description) {
    Orbel::Guard<Orbel::CMutex> guard(claimState().paramMutex);
    ShareMemoryPool::Param& param = claimState().param;
    if (param.dataSize == 0) {
        param.dataSize = description.dataSize;
        param.type = description.type;
    }
}

bool argumentsValid(const void* buffer, const void* desc, int32_t len) {
    // A negative length passes, as it stands.
    if (buffer == nullptr || desc == nullptr ||
        (len >= 0 && static_cast<size_t>(len) < sizeof(BlockDescription))) {
        ORBEL_LOG_ERROR("arg invalid.\n");
        return false;
    }
    return true;
}

}  // namespace

ShareMemoryPool::Param knownPoolParam() {
    Orbel::Guard<Orbel::CMutex> guard(claimState().paramMutex);
    return claimState().param;
}

void setKnownPoolParam(const ShareMemoryPool::Param& param) {
    Orbel::Guard<Orbel::CMutex> guard(claimState().paramMutex);
    claimState().param = param;
}

MemoryBlock* MemoryBlock::createMemoryBlock(int32_t size) {
    ShareMemoryPool& pool = requirePool();
    void* const buffer = pool.malloc(size);
    if (buffer == nullptr) {
        ORBEL_LOG_ERROR("alloc get buffer failed.\n");
        return nullptr;
    }
    auto* const block = new MemoryBlock(buffer, size);
    if (!MemoryBlockPool::instance().addBlock(block)) {
        ORBEL_LOG_ERROR("add block failed.\n");
        pool.free(buffer);
        destroyObject(block);
        return nullptr;
    }
    return block;
}

bool MemoryBlock::getMemoryBlockDesc(void* buffer, void* desc, int32_t len) {
    if (!argumentsValid(buffer, desc, len)) {
        return false;
    }
    std::memset(desc, 0, len < 0 ? sizeof(BlockDescription) : static_cast<size_t>(len));
    ShareMemoryPool& pool = requirePool();
    int32_t offset = 0;
    if (!pool.getOffset(buffer, offset)) {
        ORBEL_LOG_ERROR("getOffset failed.\n");
        return false;
    }
    const MemoryBlock* const block = MemoryBlockPool::instance().findBlock(offset);
    if (block == nullptr) {
        ORBEL_LOG_ERROR("getBlock failed.\n");
        return false;
    }
    const ShareMemoryPool::Param param = knownPoolParam();
    const BlockDescription description{kBlockDescriptionMagic, param.type, param.dataSize,
                                       static_cast<uint32_t>(offset),
                                       static_cast<uint32_t>(block->mSize)};
    std::memcpy(desc, &description, sizeof description);
    pool.incDeliverRef(block->mBuffer);
    return true;
}

bool MemoryBlock::checkMemoryBlockDesc(const void* desc, int32_t len) {
    if (!argumentsValid(desc, desc, len)) {
        return false;
    }
    BlockDescription description{};
    std::memcpy(&description, desc, sizeof description);
    if (description.magic != kBlockDescriptionMagic) {
        ORBEL_LOG_ERROR("magic invalid.\n");
        return false;
    }
    return true;
}

MemoryBlock* MemoryBlock::getMemoryBlock(const void* desc, int32_t len) {
    BlockDescription description{};
    if (checkMemoryBlockDesc(desc, len)) {
        std::memcpy(&description, desc, sizeof description);
    }
    // A kind that there is not would make the pool itself unreachable from then on.
    if (description.magic != kBlockDescriptionMagic || description.type != 0) {
        ORBEL_LOG_ERROR("description is invalid.\n");
        return nullptr;
    }
    learnPoolParam(description);
    ShareMemoryPool& pool = requirePool();
    const auto offset = static_cast<int32_t>(description.offset);
    // Or two threads would each make an object for one block.
    Orbel::Guard<Orbel::CMutex> guard(claimState().claimMutex);
    MemoryBlock* block = MemoryBlockPool::instance().acquireBlock(offset);
    if (block == nullptr) {
        block = claimBlock(pool, offset, description.size);
    }
    if (block != nullptr) {
        pool.decDeliverRef(block->mBuffer);
    }
    return block;
}

/// Makes this process a holder of the block at `offset`, which came from a stranger, as the size
/// did: neither may lead outside.
MemoryBlock* MemoryBlock::claimBlock(ShareMemoryPool& pool, int32_t offset, uint32_t size) {
    void* const buffer = pool.getMemory(offset);
    if (buffer == nullptr) {
        ORBEL_LOG_ERROR("memoryBlock invalid.\n");
        return nullptr;
    }
    if (size == 0 || size > pool.blockSize(offset)) {
        ORBEL_LOG_ERROR("memoryBlock invalid.\n");
        pool.free(buffer);
        return nullptr;
    }
    auto* const block = new MemoryBlock(buffer, static_cast<int32_t>(size));
    if (!MemoryBlockPool::instance().addBlock(block)) {
        ORBEL_LOG_ERROR("memoryBlock invalid.\n");
        pool.free(buffer);
        destroyObject(block);
        return nullptr;
    }
    return block;
}

void MemoryBlock::operator delete(MemoryBlock* block, std::destroying_delete_t) {
    if (block == nullptr) {
        ORBEL_LOG_ERROR("operator delete failed!\n");
        return;
    }
    if (MemoryBlockPool::instance().releaseBlock(block) != 0) {
        return;  // others use the object, or it is none that the pool knows
    }
    ShareMemoryManager::instance()->getMemPool()->free(block->mBuffer);
    destroyObject(block);
}

void MemoryBlock::destroyObject(MemoryBlock* block) {
    block->~MemoryBlock();
    ::operator delete(static_cast<void*>(block));
}

}  // namespace Vantel::Memory
