#include "Vantel/Memory/SharePacket.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "Vantel/Memory/Packet.h"
#include "Vantel/Memory/ShareMemoryManager.h"
#include "Vantel/Orbel/ErrorState.h"
#include "frame/base/Log.h"
#include "memory/MemoryManagerInternal.h"
#include "memory/share/MemoryBlock.h"
#include "memory/share/ShareDescription.h"
#include "memory/share/ShareMemoryInternal.h"

namespace Vantel::Memory {

namespace {

constexpr int kInvalidArgument = 1;
constexpr uint32_t kAttach = 0;
constexpr uint32_t kCreate = 1;
constexpr uint32_t kMaxPageSize = 4096;  // the bitmap of a page of small blocks has 64 bits

bool sharing() {
    if (MemoryManagerInternal::instance().policy() == policyShare) {
        return true;
    }
    Orbel::setLastErrno(kInvalidArgument);
    return false;
}

bool attachPool(ShareMemoryPool::Param& param) {
    ShareMemoryPool* const pool = ShareMemoryManager::instance()->loadMemPool(&param);
    if (pool == nullptr) {
        return false;
    }
    ShareMemoryPool::Param known = knownPoolParam();
    pool->getMemoryPoolParam(known);
    setKnownPoolParam(known);
    return true;
}

void freeDescription(void* buffer, unsigned long /*size*/, unsigned char* /*extra*/) {
    std::free(buffer);
}

/// Writes the description of `packet` to `bytes`; false if its block cannot be described.
bool describe(const Packet& packet, uint8_t* bytes) {
    const auto extraSize = static_cast<uint32_t>(packet.getExtraSize());
    ShareDescription head{};
    head.magic = kShareHeadMagic;
    head.tailOffset = static_cast<uint32_t>(sizeof head) + extraSize;
    head.packetSize = static_cast<uint32_t>(packet.size());
    head.extraSize = extraSize;
    if (!MemoryBlock::getMemoryBlockDesc(packet.getBuffer(), head.block, sizeof head.block)) {
        ORBEL_LOG_ERROR("getMemoryBlockDesc failed.\n");
        return false;
    }
    std::memcpy(bytes, &head, sizeof head);
    if (extraSize != 0) {
        std::memcpy(bytes + sizeof head, packet.getExtraData(), extraSize);
    }
    std::memcpy(bytes + head.tailOffset, &kShareTailMagic, sizeof kShareTailMagic);
    return true;
}

}  // namespace

SharePacket* SharePacket::instance() {
    static SharePacket packet;
    return &packet;
}

bool SharePacket::initialPacket(Param* param) {
    if (param == nullptr || param->role > kCreate) {
        ORBEL_LOG_ERROR("invalid arg.\n");
        Orbel::setLastErrno(kInvalidArgument);
        return false;
    }
    if (param->poolType != 0) {
        ORBEL_LOG_ERROR("pool type not support.\n");
        Orbel::setLastErrno(kInvalidArgument);
        return false;
    }
    ShareMemoryPool::Param pool{0, param->dataSize, param->pageSize, param->orderNum,
                                param->debugMode};
    if (pool.pageSize > kMaxPageSize) {
        ORBEL_LOG_WARN(" share memory pool not support pagesize bigger than 4096");
        pool.pageSize = kMaxPageSize;
    }
    const bool done = param->role == kAttach ? attachPool(pool)
                                             : ShareMemoryManager::instance()->createMemPool(&pool);
    if (!done) {
        ORBEL_LOG_ERROR("init memory pool failed.\n");
    }
    return done;
}

Packet SharePacket::convertDescribe(const Packet& packet) {
    if (!sharing()) {
        return packet;
    }
    if (packet.size() < 1) {
        return {};  // invalid, or nothing to tell of
    }
    const auto extraSize = static_cast<size_t>(packet.getExtraSize());
    const size_t bytes = kShareDescriptionBytes + extraSize;
    auto* const buffer = bytes > INT_MAX ? nullptr : static_cast<uint8_t*>(std::malloc(bytes));
    if (buffer == nullptr) {
        ORBEL_LOG_ERROR("malloc failed. %zu, extra %zu\n", bytes, extraSize);
        return {};
    }
    if (!describe(packet, buffer)) {
        std::free(buffer);
        return {};
    }
    return {buffer, static_cast<int>(bytes), Packet::FreeFunction(&freeDescription)};
}

Packet SharePacket::convertOriginal(const Packet& packet) {
    if (!sharing()) {
        return packet;
    }
    ShareDescription head{};
    if (!readShareDescription(packet.getBuffer(), packet.size(), head)) {
        return packet;  // a caller may hand in any packet
    }
    return {packet.getBuffer(), packet.size(), shareDescriptionMarker()};
}

}  // namespace Vantel::Memory
