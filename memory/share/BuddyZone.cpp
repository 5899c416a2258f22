#include "memory/share/BuddyZone.h"

#include <bit>
#include <limits>
#include <utility>

#include "Vantel/Utils/Bits.h"
#include "frame/base/Require.h"
#include "memory/BuddyPages.h"
#include "memory/share/LocalMemory.h"

namespace Vantel::Memory {

namespace {

BuddyInfo* infoOf(ZoneHead* head) {
    return reinterpret_cast<BuddyInfo*>(head + 1);
}
List* listsOf(BuddyInfo* info) {
    return reinterpret_cast<List*>(info + 1);
}
PageNode* nodesOf(BuddyInfo* info, uint32_t orders) {
    return reinterpret_cast<PageNode*>(listsOf(info) + orders);
}

uint64_t bytesNeeded(uint64_t pages, uint64_t orders) {
    const uint64_t bytes = sizeof(BuddyInfo) + orders * sizeof(List) + pages * sizeof(PageNode);
    return alignUp<uint64_t>(bytes, 8);
}

void writeInfo(BuddyInfo& info, BuddyConfig config) {
    info.blockNum = config.dataSize / config.pageSize;
    info.orderNum = buddyOrderCount(info.blockNum, config.orderNum);
    info.pageShift = Utils::log2Int(config.pageSize);
    info.listOffset = sizeof(BuddyInfo);
    info.nodeOffset = sizeof(BuddyInfo) + info.orderNum * sizeof(List);
    info.dataSize = config.dataSize;
    info.pageSize = config.pageSize;
}

void writePages(BuddyInfo& info, ListArea area) {
    List* const lists = listsOf(&info);
    PageNode* const nodes = nodesOf(&info, info.orderNum);
    for (uint32_t page = 0; page < info.blockNum; ++page) {
        nodes[page].index = page;
        nodes[page].order = kInsideBlock;
        listInit(&nodes[page].link, nullptr);
    }
    for (uint32_t order = 0; order < info.orderNum; ++order) {
        listInit(&lists[order], nullptr);
    }
    carvePages(info.blockNum, info.orderNum, [&](uint32_t order, uint32_t page) {
        nodes[page].order = freeHead(order);
        listInsert(&lists[order], &nodes[page].link, area);
    });
}

/// What this process needs of a ready zone, checked once and kept: the zone is written by others.
/// False if it contradicts itself or its size.
bool readZone(const ZoneHead& head, BuddyPrivateData& priv) {
    const BuddyInfo info = *priv.info;
    const bool pagesFit = std::has_single_bit(info.pageSize) &&
                          info.pageShift == Utils::log2Int(info.pageSize) && info.blockNum > 0 &&
                          info.blockNum == info.dataSize / info.pageSize;
    if (!pagesFit || info.orderNum == 0 || info.orderNum > buddyOrderCount(info.blockNum, 0) ||
        info.listOffset != sizeof(BuddyInfo) ||
        info.nodeOffset != sizeof(BuddyInfo) + info.orderNum * sizeof(List) ||
        sizeof head + bytesNeeded(info.blockNum, info.orderNum) > head.size) {
        ORBEL_LOG_ERROR("buddy zone of [%u] bytes is damaged.\n", head.size);
        return false;
    }
    priv.config = {info.dataSize, info.pageSize, info.orderNum};
    priv.pageCount = info.blockNum;
    priv.pageShift = info.pageShift;
    priv.infoBytes = bytesNeeded(info.blockNum, info.orderNum);
    priv.lists = listsOf(priv.info);
    priv.nodes = nodesOf(priv.info, info.orderNum);
    return true;
}

BuddyPrivateData* makePrivateData(ZoneHead* head, uint8_t* data) {
    void* const memory = localAllocate(sizeof(BuddyPrivateData));
    if (memory == nullptr) {
        ORBEL_LOG_ERROR("malloc failed.\n");
        return nullptr;
    }
    auto* const priv = new (memory)
        BuddyPrivateData{data, infoOf(head), ProcessMutex(kMutexBuddy), {}, 0, 0, 0, {}, {}};
    if (!readZone(*head, *priv)) {
        localRelease(priv);
        return nullptr;
    }
    return priv;
}

constexpr Buddy kFunctions{
    .malloc = buddyMallocImp,
    .free = buddyFreeImp,
    .getOffset = buddyGetOffsetImp,
    .getAddress = buddyGetAddressImp,
    .getDataBaseAddr = buddyGetDataBaseAddrImp,
    .getPriv = buddyGetPrivImp,
    .getPrivBaseAddr = buddyGetPrivBaseAddrImp,
    .printNodeInfo = buddyPrintNodeInfoImp,
    .getFreeSize = buddyGetFreeSizeImp,
    .getTotalSize = buddyTotalSizeImp,
    .destroy = buddyDestroyImp,
    .internal = nullptr,
};

}  // namespace

int32_t getBuddyZoneSize(BuddyConfig config) {
    ORBEL_REQUIRE(config.pageSize > 0 && config.dataSize > 0,
                  "config pageSize > 0 && dataSize > 0\n");
    const uint32_t pages = config.dataSize / config.pageSize;
    const uint64_t bytes = bytesNeeded(pages, buddyOrderCount(pages, config.orderNum));
    if (!std::in_range<int32_t>(bytes)) {
        ORBEL_LOG_ERROR("buddy zone of [%zu] bytes is too large.\n", static_cast<size_t>(bytes));
        return -1;
    }
    return static_cast<int32_t>(bytes);
}

int32_t intraInitBuddy(BuddyConfig config, ZoneHead* head) {
    if (zoneReady(head)) {
        return 0;
    }
    ORBEL_REQUIRE(config.dataSize > 0 && config.pageSize > 0 &&
                      config.dataSize >= config.pageSize && std::has_single_bit(config.pageSize),
                  "param error\n");
    const uint32_t pages = config.dataSize / config.pageSize;
    const uint64_t bytes = bytesNeeded(pages, buddyOrderCount(pages, config.orderNum));
    if (sizeof *head + bytes > head->size) {
        ORBEL_LOG_ERROR("buddy zone of [%u] bytes is too small.\n", head->size);
        return -1;
    }
    BuddyInfo* const info = infoOf(head);
    if (info->blockNum == 0) {
        writeInfo(*info, config);
        writePages(*info, {reinterpret_cast<uint8_t*>(info), bytes});
    }
    setZoneReady(head);
    return 0;
}

int32_t createBuddy(BuddyConfig config, ZoneHead* head, uint8_t* data, Buddy** buddy) {
    ORBEL_REQUIRE(head != nullptr && data != nullptr && buddy != nullptr,
                  "head != osNullptr && data != osNullptr && buddy != osNullptr\n");
    if (intraInitBuddy(config, head) != 0) {
        return -1;
    }
    BuddyPrivateData* const priv = makePrivateData(head, data);
    if (priv == nullptr) {
        return -1;
    }
    auto* const table = localRecord<Buddy>();
    if (table == nullptr) {
        ORBEL_LOG_ERROR("malloc failed.\n");
        localRelease(priv);
        return -1;
    }
    *table = kFunctions;
    table->internal = priv;
    *buddy = table;
    return 0;
}

int32_t getBuddyConfig(const Buddy* buddy, BuddyConfig& config) {
    config = buddy->internal->config;
    return 0;
}

ListArea buddyPrivateArea(const Buddy* buddy) {
    return privateArea(*buddy->internal);
}

ListArea buddyDataArea(const Buddy* buddy) {
    const BuddyPrivateData& priv = *buddy->internal;
    return {priv.dataBase, uint64_t{priv.pageCount} << priv.pageShift};
}

}  // namespace Vantel::Memory
