#pragma once

#include <bit>
#include <cstdint>

namespace Vantel::Memory {

/// The arithmetic of the binary buddy system (Knuth, The Art of Computer Programming, volume 1,
/// 2.5) that the allocator over shared segments and the one over a region of the process have in
/// common. A block of order k is 2^k pages, its buddy at order k is at its page number XOR 2^k.
///
/// The state of a page, one number:
///     0      the page is inside a block
///     k + 1  it heads a free block of order k, which is on free list k
///     ~k     it heads an allocated block of order k
inline constexpr int32_t kInsideBlock = 0;

constexpr int32_t freeHead(uint32_t order) {
    return static_cast<int32_t>(order + 1);
}
constexpr int32_t allocatedHead(uint32_t order) {
    return ~static_cast<int32_t>(order);
}
/// The order of an allocated block by the state of its head.
constexpr uint32_t allocatedOrder(int32_t state) {
    return static_cast<uint32_t>(~state);
}

/// How many orders there are over `pageCount` pages, at most `limit` unless that is 0.
constexpr uint32_t buddyOrderCount(uint32_t pageCount, uint32_t limit) {
    const auto orders = static_cast<uint32_t>(std::bit_width(pageCount | 1));
    return limit != 0 && limit < orders ? limit : orders;
}

/// The smallest order whose blocks hold `sizeBytes`. A size below 1 yields one that is beyond all
/// lists.
constexpr uint32_t buddyOrder(int32_t sizeBytes, uint32_t pageShift) {
    const auto last = static_cast<uint64_t>(static_cast<int64_t>(sizeBytes) - 1);
    return static_cast<uint32_t>(std::bit_width(last >> pageShift));
}

/// Cuts fresh pages into blocks, the largest ones first, in ascending positions:
/// `visit(order, page)` for each.
template <class Visit>
void carvePages(uint32_t pageCount, uint32_t orderCount, Visit&& visit) {
    uint32_t page = 0;
    for (uint32_t order = orderCount; order-- > 0;) {
        for (; (pageCount - page) >> order != 0; page += uint32_t{1} << order) {
            visit(order, page);
        }
    }
}

/// Takes a block of `order` out of `store`, whose lock the caller holds: the last piece of the
/// first block of the first list from `order` on that has one. The page that heads it, or -1 if no
/// list has a block (`reached` is then the number of lists, or `order` if that is higher). A Store
/// has
///     uint32_t orderCount();
///     bool empty(uint32_t order);
///     int64_t pop(uint32_t order);                  the first page of the list; -1: none to be had
///     void push(uint32_t order, uint32_t page);     to the front of the list
///     void setState(uint32_t page, int32_t state);
template <class Store>
int64_t takePages(Store& store, uint32_t order, uint32_t& reached) {
    int64_t found = -1;
    for (reached = order; reached < store.orderCount(); ++reached) {
        found = store.empty(reached) ? -1 : store.pop(reached);
        if (found >= 0) {
            break;
        }
    }
    if (found < 0) {
        return -1;
    }
    auto page = static_cast<uint32_t>(found);
    store.setState(page, kInsideBlock);
    for (uint32_t half = reached; half-- > order;) {
        store.setState(page, freeHead(half));
        store.push(half, page);
        page += uint32_t{1} << half;
    }
    store.setState(page, allocatedHead(order));
    return page;
}

/// Puts the block of `order` at `page` back into `store`, whose lock the caller holds, merged with
/// its free buddies. The page's own state stays as it was if the block becomes the upper half of a
/// larger one: nothing depends on it, and the next split writes it. A Store has, beside the above,
///     uint32_t pageCount();
///     int32_t state(uint32_t page);
///     bool remove(uint32_t order, uint32_t page);   from its list; false: refused
template <class Store>
void givePages(Store& store, uint32_t page, uint32_t order) {
    for (; order + 1 < store.orderCount(); ++order) {
        const uint32_t buddy = page ^ (uint32_t{1} << order);
        if (buddy >= store.pageCount() || store.state(buddy) != freeHead(order) ||
            !store.remove(order, buddy)) {
            break;
        }
        store.setState(buddy, kInsideBlock);
        page &= ~(uint32_t{1} << order);
    }
    store.setState(page, freeHead(order));
    store.push(order, page);
}

}  // namespace Vantel::Memory
