#include "memory/share/Buddy.h"

#include <atomic>
#include <mutex>

#include "frame/base/Require.h"
#include "memory/BuddyPages.h"
#include "memory/share/BuddyZone.h"
#include "memory/share/LocalMemory.h"

namespace Vantel::Memory {

namespace {

/// The zone's lists and nodes under its lock, for the arithmetic.
///
/// A process killed between two stores may leave a page that is free by its state and on no list:
/// it is lost, and nothing worse may come of it. So what a list gives must be free by its state,
/// which is 0 or negative in all blocks that are out; and a page is only taken from the midst of a
/// list that agrees. The state is written before a page is listed and after it has been taken off.
class ZoneStore {
public:
    explicit ZoneStore(BuddyPrivateData& priv) : mPriv(priv), mArea(privateArea(priv)) {}

    uint32_t orderCount() const { return mPriv.config.orderNum; }
    uint32_t pageCount() const { return mPriv.pageCount; }
    bool empty(uint32_t order) const { return listEmpty(&mPriv.lists[order]); }
    int32_t state(uint32_t page) const { return pageState(mPriv, page); }
    void setState(uint32_t page, int32_t state) {
        // Relaxed: getOffset looks at it without the lock, at a block that its caller holds. The
        // fences keep the compiler from moving it past the stores of the lists.
        std::atomic_signal_fence(std::memory_order_seq_cst);
        std::atomic_ref(mPriv.nodes[page].order).store(state, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }

    int64_t pop(uint32_t order) {
        List& head = mPriv.lists[order];
        const int64_t page = pageOfLink(head.next);
        if (page < 0 || !isFreeBlock(static_cast<uint64_t>(page), order) ||
            !listRemove(&head, &mPriv.nodes[page].link, mArea)) {
            ORBEL_LOG_ERROR("free list %u is damaged, what is on it is given up.\n", order);
            listInit(&head, nullptr);
            return -1;
        }
        return page;
    }
    void push(uint32_t order, uint32_t page) {
        listInsert(&mPriv.lists[order], &mPriv.nodes[page].link, mArea);
    }
    bool remove(uint32_t order, uint32_t page) {
        List& link = mPriv.nodes[page].link;
        return listAgrees(&link, mArea) && listRemove(&mPriv.lists[order], &link, mArea);
    }

private:
    /// The page whose link stands at `offset`, -1 if none does.
    int64_t pageOfLink(uint64_t offset) const {
        const uint64_t first = mArea.offsetOf(&mPriv.nodes[0].link);
        const uint64_t page = (offset - first) / sizeof(PageNode);
        const bool valid = offset >= first && (offset - first) % sizeof(PageNode) == 0;
        return valid && page < mPriv.pageCount ? static_cast<int64_t>(page) : -1;
    }

    bool isFreeBlock(uint64_t page, uint32_t order) const {
        const uint64_t pages = uint64_t{1} << order;
        return page % pages == 0 && page + pages <= mPriv.pageCount &&
               state(static_cast<uint32_t>(page)) == freeHead(order);
    }

    BuddyPrivateData& mPriv;
    const ListArea mArea;
};

/// The size that a block of `order` has must fit into the 31 bits in which it is told.
bool tellable(const BuddyPrivateData& priv, uint32_t order) {
    return priv.pageShift + order < 31;
}

size_t offsetIn(const BuddyPrivateData& priv, const void* ptr) {
    return static_cast<size_t>(static_cast<const uint8_t*>(ptr) - priv.dataBase);
}

/// Where an offset would lead, to be printed and not followed.
const void* addressAt(ListArea area, uint64_t offset) {
    return reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(area.base) + offset);
}

/// Frees the block at an offset that passed the check; -1 if its head has an impossible order.
int32_t freeBlock(BuddyPrivateData& priv, size_t offset) {
    const auto page = static_cast<uint32_t>(offset >> priv.pageShift);
    const int32_t order = allocatedOrderAt(priv, page);
    if (order < 0) {
        ORBEL_LOG_ERROR("block at page %u leads out of the pages.\n", page);
        return -1;
    }
    ZoneStore store(priv);
    givePages(store, page, static_cast<uint32_t>(order));
    return 0;
}

BuddyPrivateData& privateOf(Buddy* thiz) {
    ORBEL_REQUIRE(thiz != nullptr, "thiz != osNullptr\n");
    ORBEL_REQUIRE(thiz->internal != nullptr, "pi != osNullptr\n");
    ORBEL_REQUIRE(thiz->internal->info != nullptr, "bi != osNullptr\n");
    return *thiz->internal;
}

}  // namespace

int32_t intraBuddyCheck(const BuddyPrivateData* priv, size_t offset) {
    ORBEL_REQUIRE(priv != nullptr, "priv != osNullptr\n");
    if (offset == ~size_t{0}) {
        return -1;
    }
    if (offset % priv->config.pageSize != 0) {
        ORBEL_LOG_ERROR("unaligned offset[%zu].\n", offset);
        return -1;
    }
    const size_t page = offset >> priv->pageShift;
    if (page >= priv->pageCount) {
        ORBEL_LOG_ERROR("curIdx %u greater than maxIdx %u\n", static_cast<uint32_t>(page),
                        priv->pageCount);
        return -1;
    }
    const int32_t state = pageState(*priv, page);
    if (state == kInsideBlock) {
        ORBEL_LOG_ERROR("curIdx %u is not a boundary of block allocated.\n",
                        static_cast<uint32_t>(page));
        return -1;
    }
    return state < 0 ? 1 : 0;
}

void* buddyMallocImp(Buddy* thiz, int32_t* size) {
    ORBEL_REQUIRE(thiz != nullptr && size != nullptr, "thiz != osNullptr && size != osNullptr\n");
    BuddyPrivateData& priv = privateOf(thiz);
    if (*size == 0) {
        return nullptr;
    }
    const uint32_t order = buddyOrder(*size, priv.pageShift);
    uint32_t reached = order;
    int64_t page = -1;
    if (tellable(priv, order)) {
        const std::lock_guard guard(priv.mutex);
        ZoneStore store(priv);
        page = takePages(store, order, reached);
    }
    if (page < 0) {
        ORBEL_LOG_ERROR("order %d greater than orderNum %d malloc size[%zu].\n",
                        static_cast<int>(reached), static_cast<int>(priv.config.orderNum),
                        static_cast<size_t>(*size));
        return nullptr;
    }
    *size = 1 << priv.pageShift << order;
    return priv.dataBase + (static_cast<size_t>(page) << priv.pageShift);
}

int32_t buddyFreeImp(Buddy* thiz, void* ptr) {
    BuddyPrivateData& priv = privateOf(thiz);
    if (ptr == nullptr) {
        return 0;
    }
    const size_t offset = offsetIn(priv, ptr);
    const std::lock_guard guard(priv.mutex);
    const int32_t check = intraBuddyCheck(&priv, offset);
    if (check < 1) {
        ORBEL_LOG_ERROR("buddy check failed with ret [%d],offset[%zu].\n", check, offset);
        return -1;
    }
    return freeBlock(priv, offset);
}

int32_t buddyGetOffsetImp(Buddy* thiz, void* ptr, int32_t* offset) {
    ORBEL_REQUIRE(thiz != nullptr && offset != nullptr,
                  "thiz != osNullptr && offset != osNullptr\n");
    BuddyPrivateData& priv = privateOf(thiz);
    if (ptr == nullptr) {
        return -1;
    }
    const size_t whole = offsetIn(priv, ptr);
    *offset = static_cast<int32_t>(whole);
    const int32_t check = intraBuddyCheck(&priv, whole);
    if (check < 1) {
        ORBEL_LOG_ERROR("buddy check failed with ret [%d],ptr [%p],offset[%zu].\n", check, ptr,
                        whole);
        return -1;
    }
    return 0;
}

void* buddyGetAddressImp(Buddy* thiz, int32_t offset) {
    BuddyPrivateData& priv = privateOf(thiz);
    const auto whole = static_cast<size_t>(offset);  // a negative one is beyond all pages
    const std::lock_guard guard(priv.mutex);
    const int32_t check = intraBuddyCheck(&priv, whole);
    if (check < 1) {
        ORBEL_LOG_ERROR("buddy check failed with ret [%d],offset [%zu].\n", check, whole);
        return nullptr;
    }
    return priv.dataBase + whole;
}

const void* buddyGetDataBaseAddrImp(Buddy* thiz) {
    return privateOf(thiz).dataBase;
}

void* buddyGetPrivImp(Buddy* thiz, void* ptr, int32_t* size) {
    ORBEL_REQUIRE(thiz != nullptr && ptr != nullptr && size != nullptr,
                  "thiz != osNullptr && ptr != osNullptr && size != osNullptr\n");
    BuddyPrivateData& priv = privateOf(thiz);
    *size = static_cast<int32_t>(PageNode::kPrivateBytes);
    return priv.nodes[offsetIn(priv, ptr) >> priv.pageShift].privateArea;
}

const void* buddyGetPrivBaseAddrImp(Buddy* thiz) {
    return privateOf(thiz).info;
}

void buddyPrintNodeInfoImp(Buddy* thiz) {
    BuddyPrivateData& priv = privateOf(thiz);
    const ListArea area = privateArea(priv);
    const std::lock_guard guard(priv.mutex);
    for (uint32_t order = 0; order < priv.config.orderNum; ++order) {
        listFind(&priv.lists[order], area, [&](List* link) {
            const auto* node = listRecord<PageNode>(link, offsetof(PageNode, link), area);
            if (node == nullptr) {
                return true;
            }
            ORBEL_LOG_INFO(
                " Order List(%2d) Idx(%5d) Self(%p) Order(%4d) Prev(%6zu)(%p) Next(%6zu)(%p)\n",
                static_cast<int>(order), static_cast<int>(node->index),
                static_cast<const void*>(node), node->order, static_cast<size_t>(link->prev),
                addressAt(area, link->prev), static_cast<size_t>(link->next),
                addressAt(area, link->next));
            return false;
        });
    }
}

size_t buddyGetFreeSizeImp(Buddy* thiz) {
    BuddyPrivateData& priv = privateOf(thiz);
    const ListArea area = privateArea(priv);
    const std::lock_guard guard(priv.mutex);
    size_t pages = 0;
    for (uint32_t order = 0; order < priv.config.orderNum; ++order) {
        pages += listCount(&priv.lists[order], area) << order;
    }
    return pages << priv.pageShift;
}

size_t buddyTotalSizeImp(Buddy* thiz) {
    BuddyPrivateData& priv = privateOf(thiz);
    const std::lock_guard guard(priv.mutex);
    return priv.pageCount << priv.pageShift;  // in 32 bits, as it stands
}

int32_t buddyDestroyImp(Buddy* thiz) {
    ORBEL_REQUIRE(thiz != nullptr, "thiz != osNullptr\n");
    localRelease(thiz->internal);
    localRelease(thiz);
    return 0;
}

}  // namespace Vantel::Memory
