#include "memory/share/SmallMemory.h"

#include <algorithm>
#include <mutex>

#include "frame/base/Require.h"
#include "memory/share/LocalMemory.h"

namespace Vantel::Memory {

namespace {

constexpr uint32_t kBlockShift = 6;
constexpr uint32_t kBlockSize = 1 << kBlockShift;
constexpr uint32_t kMaxBlocks = 64;  // bits of a page's bitmap
constexpr int32_t kPageRequest = 1024;

void requireWhole(const SmallMemPrivData* priv) {
    ORBEL_REQUIRE(priv != nullptr, "priv != osNullptr\n");
    ORBEL_REQUIRE(priv->buddy != nullptr, "priv->buddy != osNullptr\n");
    ORBEL_REQUIRE(priv->smallMemZone != nullptr, "priv->smallMemZone != osNullptr\n");
    ORBEL_REQUIRE(priv->dataBaseAddr != nullptr, "priv->dataBaseAddr != osNullptr\n");
    ORBEL_REQUIRE(priv->privBaseAddr != nullptr, "priv->privBaseAddr != osNullptr\n");
}

SmallMemPrivData* privateOf(const SmallMemory* thiz) {
    if (thiz == nullptr || thiz->internal == nullptr) {
        ORBEL_LOG_ERROR("get private data failed!\n");
        return nullptr;
    }
    return thiz->internal;
}

/// The descriptor of the page that `ptr` points into; null with an error line if it points out of
/// the pages.
SmallMemPageDesc* pageOf(const SmallMemPrivData& priv, void* ptr) {
    const ListArea data = buddyDataArea(priv.buddy);
    const auto offset = static_cast<uint64_t>(static_cast<uint8_t*>(ptr) - data.base);
    int32_t size = 0;
    void* desc = nullptr;
    if (ptr != nullptr && offset < data.sizeBytes) {
        desc = priv.buddy->getPriv(priv.buddy, ptr, &size);
    }
    if (desc == nullptr || size < static_cast<int32_t>(sizeof(SmallMemPageDesc))) {
        ORBEL_LOG_ERROR(
            "buddy get private data failed! pageDesc =%p, descSize = %d, SmallMemPageDesc = %d\n",
            desc, size, static_cast<int>(sizeof(SmallMemPageDesc)));
        return nullptr;
    }
    return static_cast<SmallMemPageDesc*>(desc);
}

/// The block of a page at `offset` in the data; -1 if it isn't one of the page's.
int64_t blockOf(const SmallMemPageDesc& page, uint64_t offset) {
    const uint64_t block = (offset - page.dataOffset) >> kBlockShift;
    return block < std::min(page.blockNum, kMaxBlocks) ? static_cast<int64_t>(block) : -1;
}

List* blockAt(const SmallMemPrivData& priv, const SmallMemPageDesc& page, uint64_t block) {
    return buddyDataArea(priv.buddy).at(page.dataOffset + (block << kBlockShift));
}

void fillPage(const SmallMemPrivData& priv, SmallMemPageDesc& page, uint32_t offset,
              uint32_t bytes) {
    page.usedBitmap = 0;
    page.dataOffset = offset;
    page.blockNum = bytes >> kBlockShift;
    if (page.blockNum > kMaxBlocks) {
        ORBEL_LOG_WARN(" >>>>>>>> blockNum %d too many\n", static_cast<int>(page.blockNum));
        page.blockNum = kMaxBlocks;
    }
    listInit(&page.freeList, nullptr);
    for (uint32_t block = 0; block < page.blockNum; ++block) {
        listInsert(&page.freeList, blockAt(priv, page, block), buddyDataArea(priv.buddy));
    }
}

SmallMemPageDesc* interCreateNewPage(const SmallMemPrivData* priv) {
    requireWhole(priv);
    Buddy* const buddy = priv->buddy;
    int32_t size = kPageRequest;
    void* const memory = buddy->malloc(buddy, &size);
    if (memory == nullptr) {
        ORBEL_LOG_ERROR("buddy malloc failed!\n");
        return nullptr;
    }
    SmallMemPageDesc* const page = pageOf(*priv, memory);
    if (page == nullptr) {
        buddy->free(buddy, memory);
        return nullptr;
    }
    int32_t offset = 0;
    if (buddy->getOffset(buddy, memory, &offset) != 0) {
        ORBEL_LOG_ERROR("buddy get offset failed!\n");
        buddy->free(buddy, memory);
        return nullptr;
    }
    fillPage(*priv, *page, static_cast<uint32_t>(offset), static_cast<uint32_t>(size));
    if (!listInsert(priv->smallMemZone, &page->pageLink, buddyPrivateArea(buddy))) {
        buddy->free(buddy, memory);
        return nullptr;
    }
    return page;
}

/// The first page with a free block, made if there is none.
SmallMemPageDesc* pageWithBlock(const SmallMemPrivData& priv) {
    const ListArea area = buddyPrivateArea(priv.buddy);
    SmallMemPageDesc* known = nullptr;
    List* const found = listFind(priv.smallMemZone, area, [&](List* link) {
        known = listRecord<SmallMemPageDesc>(link, offsetof(SmallMemPageDesc, pageLink), area);
        return known == nullptr || !listEmpty(&known->freeList);
    });
    if (found != nullptr) {
        if (known == nullptr) {
            ORBEL_LOG_ERROR("get page desc error!\n");
        }
        return known;
    }
    SmallMemPageDesc* const page = interCreateNewPage(&priv);
    if (page == nullptr) {
        ORBEL_LOG_ERROR("create new page failed!\n");
    }
    return page;
}

/// The first free block of a page; null if its list names what is none, or one that is in use.
void* takeBlock(const SmallMemPrivData& priv, SmallMemPageDesc& page) {
    const ListArea data = buddyDataArea(priv.buddy);
    const uint64_t offset = page.freeList.next;
    const int64_t index = blockOf(page, offset);
    List* const block = data.at(offset);
    if (block == nullptr || index < 0 || offset % kBlockSize != 0) {
        return nullptr;
    }
    const uint64_t bit = uint64_t{1} << index;
    if ((page.usedBitmap & bit) != 0 || !listRemove(&page.freeList, block, data)) {
        return nullptr;
    }
    page.usedBitmap |= bit;
    return block;
}

void* interAllocMem(SmallMemPrivData& priv, int32_t size) {
    const std::lock_guard guard(priv.mutex);
    if (static_cast<size_t>(size) > kBlockSize) {  // a negative one is large
        ORBEL_LOG_ERROR("inter alloc mem failed!\n");
        return nullptr;
    }
    while (SmallMemPageDesc* const page = pageWithBlock(priv)) {
        if (void* const block = takeBlock(priv, *page)) {
            return block;
        }
        ORBEL_LOG_ERROR("free blocks of page [%u] are damaged and given up.\n", page->dataOffset);
        listInit(&page->freeList, nullptr);
    }
    return nullptr;
}

/// A page without used blocks goes back as it is: its blocks are not listed again. Should it stay
/// reachable in a torn list, it has nothing to give.
int releasePage(const SmallMemPrivData& priv, SmallMemPageDesc& page) {
    listInit(&page.freeList, nullptr);
    if (!listRemove(priv.smallMemZone, &page.pageLink, buddyPrivateArea(priv.buddy))) {
        return -1;
    }
    return priv.buddy->free(priv.buddy, priv.dataBaseAddr + page.dataOffset);
}

int interFreeMem(SmallMemPrivData* priv, void* ptr) {
    requireWhole(priv);
    const std::lock_guard guard(priv->mutex);
    SmallMemPageDesc* const page = pageOf(*priv, ptr);
    if (page == nullptr) {
        return -1;
    }
    const ListArea data = buddyDataArea(priv->buddy);
    const int64_t index = blockOf(*page, data.offsetOf(static_cast<List*>(ptr)));
    List* const block = index < 0 ? nullptr : blockAt(*priv, *page, static_cast<uint64_t>(index));
    if (block == nullptr) {
        ORBEL_LOG_ERROR("block index error!\n");
        return -1;
    }
    const uint64_t bit = uint64_t{1} << index;
    if ((page->usedBitmap & bit) == 0) {
        ORBEL_LOG_ERROR("block error, current idle!\n");
        return -1;
    }
    page->usedBitmap &= ~bit;
    if (page->usedBitmap != 0) {
        return listInsert(&page->freeList, block, data) ? 0 : -1;
    }
    return releasePage(*priv, *page);
}

SmallMemPrivData* makePrivateData(ZoneHead* head, Buddy* buddy) {
    auto* const privBase = static_cast<uint8_t*>(const_cast<void*>(buddy->getPrivBaseAddr(buddy)));
    auto* const dataBase = static_cast<uint8_t*>(const_cast<void*>(buddy->getDataBaseAddr(buddy)));
    if (privBase == nullptr) {
        ORBEL_LOG_ERROR("buddy get private base address failed!\n");
        return nullptr;
    }
    if (dataBase == nullptr) {
        ORBEL_LOG_ERROR("buddy get data base address failed!\n");
        return nullptr;
    }
    void* const memory = localAllocate(sizeof(SmallMemPrivData));
    if (memory == nullptr) {
        ORBEL_LOG_ERROR("small memory create private data failed!\n");
        return nullptr;
    }
    return new (memory) SmallMemPrivData{&reinterpret_cast<SmallMemZone*>(head)->pages, buddy,
                                         privBase, dataBase, ProcessMutex(kMutexSmallMemory)};
}

constexpr SmallMemory kFunctions{
    .alloc = allocSmallMemImp,
    .free = freeSmallMemImp,
    .getDataBaseAddr = getDataBaseAddrImp,
    .destroy = destroyImp,
    .internal = nullptr,
};

}  // namespace

int32_t getSmallMemZoneSize() {
    return sizeof(List);
}

int32_t createSmallMem(ZoneHead* head, Buddy* buddy, SmallMemory** smallMem) {
    ORBEL_REQUIRE(head != nullptr, "head != osNullptr\n");
    ORBEL_REQUIRE(buddy != nullptr, "buddy != osNullptr\n");
    ORBEL_REQUIRE(smallMem != nullptr, "smallMem != osNullptr\n");
    if (!zoneReady(head)) {
        listInit(&reinterpret_cast<SmallMemZone*>(head)->pages, nullptr);
        setZoneReady(head);
    }
    SmallMemPrivData* const priv = makePrivateData(head, buddy);
    if (priv == nullptr) {
        return -1;
    }
    auto* const table = localRecord<SmallMemory>();
    if (table == nullptr) {
        ORBEL_LOG_ERROR("create small memory failed!\n");
        localRelease(priv);
        return -1;
    }
    *table = kFunctions;
    table->internal = priv;
    *smallMem = table;
    return 0;
}

void* allocSmallMemImp(SmallMemory* thiz, int32_t size) {
    SmallMemPrivData* const priv = privateOf(thiz);
    return priv == nullptr ? nullptr : interAllocMem(*priv, size);
}

int freeSmallMemImp(SmallMemory* thiz, void* ptr) {
    SmallMemPrivData* const priv = privateOf(thiz);
    return priv == nullptr ? -1 : interFreeMem(priv, ptr);
}

const void* getDataBaseAddrImp(SmallMemory* thiz) {
    const SmallMemPrivData* const priv = privateOf(thiz);
    if (priv == nullptr) {
        return nullptr;
    }
    ORBEL_REQUIRE(priv->dataBaseAddr != nullptr, "priv->dataBaseAddr != osNullptr\n");
    return priv->dataBaseAddr;
}

int32_t destroyImp(SmallMemory* thiz) {
    // The wrong way round, as it stands: whoever destroys a table ends its process here.
    ORBEL_REQUIRE(thiz == nullptr, "thiz == osNullptr\n");
    localRelease(thiz->internal);
    localRelease(thiz);
    return 0;
}

}  // namespace Vantel::Memory
