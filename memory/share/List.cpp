#include "memory/share/List.h"

#include "frame/base/Require.h"

namespace Vantel::Memory {

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
        head->next = own;
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
    last->next = own;
    first->prev = own;
    head->next = own;
    return true;
}

bool listRemove(List* head, List* node, ListArea area) {
    ORBEL_REQUIRE(head != nullptr, "head != osNullptr\n");
    ORBEL_REQUIRE(node != nullptr, "node != osNullptr\n");
    const uint64_t own = area.offsetOf(node);
    const uint64_t prevOffset = node->prev;
    const uint64_t nextOffset = node->next;
    if (head->next == own && nextOffset == own) {
        head->next = kListNone;
        return true;
    }
    List* const prev = area.at(prevOffset);
    List* const next = area.at(nextOffset);
    if (prev == nullptr || next == nullptr) {
        return false;
    }
    if (head->next == own) {
        head->next = nextOffset;
    }
    prev->next = nextOffset;
    next->prev = prevOffset;
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
