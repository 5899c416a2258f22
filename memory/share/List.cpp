#include "memory/share/List.h"

#include <atomic>

#include "frame/base/Require.h"

namespace Vantel::Memory {

namespace {

/// One step of an operation. The fence keeps the compiler from moving it in front of those before
/// it: the process may be killed between any two.
void put(uint64_t& link, uint64_t offset) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    link = offset;
}

}  // namespace

List* ListArea::at(uint64_t offset) const {
    if (offset % alignof(List) != 0 || sizeBytes < sizeof(List) ||
        offset > sizeBytes - sizeof(List)) {
        ORBEL_LOG_ERROR("list link [%zu] leads out of [%zu] bytes.\n", static_cast<size_t>(offset),
                        static_cast<size_t>(sizeBytes));
        return nullptr;
    }
    return reinterpret_cast<List*>(base + offset);
}

void listInit(List* list, const uint8_t* base) {
    ORBEL_REQUIRE(list != nullptr, "list != osNullptr\n");
    const auto own = static_cast<uint64_t>(reinterpret_cast<const uint8_t*>(list) - base);
    list->prev = list->next = base == nullptr ? kListNone : own;
}

bool listEmpty(const List* head) {
    ORBEL_REQUIRE(head != nullptr, "head != osNullptr\n");
    return head->next == kListNone;
}

bool listInsert(List* head, List* node, ListArea area) {
    ORBEL_REQUIRE(head != nullptr, "head != osNullptr\n");
    ORBEL_REQUIRE(node != nullptr, "node != osNullptr\n");
    const uint64_t own = area.offsetOf(node);
    const uint64_t firstOffset = head->next;
    if (firstOffset == kListNone) {
        listInit(node, area.base);
        put(head->next, own);
        return true;
    }
    List* const first = area.at(firstOffset);
    const uint64_t lastOffset = first != nullptr ? first->prev : kListNone;
    List* const last = first != nullptr ? area.at(lastOffset) : nullptr;
    if (last == nullptr) {
        return false;
    }
    node->next = firstOffset;
    node->prev = lastOffset;
    put(last->next, own);
    put(first->prev, own);
    put(head->next, own);
    return true;
}

bool listRemove(List* head, List* node, ListArea area) {
    ORBEL_REQUIRE(head != nullptr, "head != osNullptr\n");
    ORBEL_REQUIRE(node != nullptr, "node != osNullptr\n");
    const uint64_t own = area.offsetOf(node);
    const uint64_t firstOffset = head->next;
    const uint64_t prevOffset = node->prev;
    if (firstOffset == own && (node->next == own || prevOffset == own)) {
        head->next = kListNone;
        return true;
    }
    const List* const first = firstOffset == kListNone ? nullptr : area.at(firstOffset);
    const bool isLast = first != nullptr && first->prev == own;
    const uint64_t nextOffset = isLast ? firstOffset : node->next;
    List* const prev = area.at(prevOffset);
    List* const next = area.at(nextOffset);
    if (prev == nullptr || next == nullptr || (firstOffset != own && prev->next != own)) {
        return false;
    }
    if (firstOffset == own) {
        put(head->next, nextOffset);
    }
    put(next->prev, prevOffset);
    put(prev->next, nextOffset);
    return true;
}

bool listAgrees(const List* node, ListArea area) {
    const uint64_t own = area.offsetOf(node);
    const List* const prev = area.at(node->prev);
    const List* const next = area.at(node->next);
    return prev != nullptr && next != nullptr && prev->next == own && next->prev == own;
}

size_t listCount(const List* head, ListArea area) {
    size_t count = 0;
    listFind(head, area, [&](const List*) {
        ++count;
        return false;
    });
    return count;
}

}  // namespace Vantel::Memory
