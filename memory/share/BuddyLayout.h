#pragma once

#include <cstddef>
#include <cstdint>

#include "memory/share/List.h"

namespace Vantel::Memory {

/// What stands behind the head of the buddy zone: this, `orderNum` heads of free lists (order 0
/// first), `blockNum` page nodes in page order. A shared-memory format. The lists' offsets count
/// from this record.
struct BuddyInfo {
    uint32_t blockNum;    // pages; not 0: the zone was initialised
    uint32_t pageShift;   // log2 of pageSize
    uint64_t listOffset;  // 40, always
    uint64_t nodeOffset;  // of the page nodes
    uint32_t dataSize;    // bytes of the data segment under management
    uint32_t pageSize;    // bytes, a power of two
    uint32_t orderNum;    // orders, hence free lists
    uint32_t padding;
};
static_assert(sizeof(BuddyInfo) == 40 && offsetof(BuddyInfo, blockNum) == 0 &&
              offsetof(BuddyInfo, pageShift) == 4 && offsetof(BuddyInfo, listOffset) == 8 &&
              offsetof(BuddyInfo, nodeOffset) == 16 && offsetof(BuddyInfo, dataSize) == 24 &&
              offsetof(BuddyInfo, pageSize) == 28 && offsetof(BuddyInfo, orderNum) == 32);

/// The record of one page.
struct PageNode {
    static constexpr size_t kPrivateBytes = 48;

    uint32_t index;                      // the page's number
    int32_t order;                       // its state, see memory/BuddyPages.h
    List link;                           // in the free list of the block that the page heads
    uint8_t privateArea[kPrivateBytes];  // for the user of the page
};
static_assert(sizeof(PageNode) == 72 && offsetof(PageNode, index) == 0 &&
              offsetof(PageNode, order) == 4 && offsetof(PageNode, link) == 8 &&
              offsetof(PageNode, privateArea) == 24);

}  // namespace Vantel::Memory
