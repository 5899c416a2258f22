#include "memory/share/MemoryBlockPool.h"

#include "Vantel/Memory/ShareMemoryManager.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "memory/share/MemoryBlock.h"

namespace Vantel::Memory {

namespace {

bool offsetOf(const MemoryBlock* block, int32_t& offset) {
    ShareMemoryPool* const pool = ShareMemoryManager::instance()->getMemPool();
    if (pool == nullptr || !pool->getOffset(block->getBuffer(), offset)) {
        ORBEL_LOG_ERROR("getOffset failed.\n");
        return false;
    }
    return true;
}

}  // namespace

MemoryBlockPool& MemoryBlockPool::instance() {
    static MemoryBlockPool& pool = *new MemoryBlockPool;
    return pool;
}

bool MemoryBlockPool::addBlock(MemoryBlock* block) {
    ORBEL_REQUIRE(block != nullptr, "osNullptr != block\n");
    int32_t offset = 0;
    if (!offsetOf(block, offset)) {
        return false;
    }
    Orbel::Guard<Orbel::CMutex> guard(mMutex);
    const auto [entry, isNew] = mBlocks.try_emplace(offset, block);
    if (!isNew) {
        ORBEL_REQUIRE(entry->second.block != nullptr, "osNullptr!= it->second\n");
        ++entry->second.users;
    }
    return true;
}

MemoryBlock* MemoryBlockPool::acquireBlock(int32_t offset) {
    Orbel::Guard<Orbel::CMutex> guard(mMutex);
    const auto entry = mBlocks.find(offset);
    if (entry == mBlocks.end()) {
        return nullptr;
    }
    ++entry->second.users;
    return entry->second.block;
}

MemoryBlock* MemoryBlockPool::findBlock(int32_t offset) {
    Orbel::Guard<Orbel::CMutex> guard(mMutex);
    const auto entry = mBlocks.find(offset);
    if (entry == mBlocks.end()) {
        return nullptr;
    }
    ORBEL_REQUIRE(entry->second.block != nullptr, "osNullptr != it->second\n");
    return entry->second.block;
}

int32_t MemoryBlockPool::releaseBlock(MemoryBlock* block) {
    int32_t offset = 0;
    if (!offsetOf(block, offset)) {
        return -1;
    }
    Orbel::Guard<Orbel::CMutex> guard(mMutex);
    const auto entry = mBlocks.find(offset);
    if (entry == mBlocks.end()) {
        ORBEL_LOG_ERROR("offset not found.\n");
        return -1;
    }
    if (--entry->second.users != 0) {
        return 1;
    }
    mBlocks.erase(entry);
    return 0;
}

}  // namespace Vantel::Memory
