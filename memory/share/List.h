#pragma once

#include <cstddef>
#include <cstdint>

namespace Vantel::Memory {

/// Head or link of a list whose links are offsets from a base that each process computes for
/// itself. The members form a ring; the head is outside of it and points at the first member, and
/// its `prev` is unused. A shared-memory format.
struct List {
    uint64_t prev;
    uint64_t next;
};
static_assert(sizeof(List) == 16 && offsetof(List, prev) == 0 && offsetof(List, next) == 8);

/// `next` of the head of an empty list. Offset 0 is a valid place.
inline constexpr uint64_t kListNone = ~uint64_t{0};

/// Where offsets count from and where they end. None that leads outside is followed.
struct ListArea {
    uint8_t* base;
    uint64_t sizeBytes;

    /// The link at `offset`; null, with an error line, if it doesn't lie wholly inside, aligned.
    List* at(uint64_t offset) const;
    uint64_t offsetOf(const List* list) const {
        return static_cast<uint64_t>(reinterpret_cast<const uint8_t*>(list) - base);
    }
};

// All of these: whoever holds the lock of the list. A null head or list ends the process.
//
// A process killed at any point of an insertion or a removal leaves a list that the others go on
// with: from the head, `next` leads over members only, up to the one that the first one's `prev`
// names, which is always right. What else points wrong by then is not relied on: the last one's
// `next`, and the `prev` of one in the midst.

/// With a base: a ring of one. With a null base: an empty head.
void listInit(List* list, const uint8_t* base);

bool listEmpty(const List* head);

/// Puts `node` in front: the last one inserted is the first one taken. False, with nothing
/// changed, if a link that it needs leads outside of `area`; the same for listRemove().
bool listInsert(List* head, List* node, ListArea area);

/// Takes a member out; its own fields stay as they are. False also for one in the midst whose
/// neighbour in front does not point at it.
bool listRemove(List* head, List* node, ListArea area);

/// The record whose link, `linkOffset` bytes into it, is `link`; null if it doesn't lie in `area`
/// wholly.
template <class Record>
Record* listRecord(List* link, size_t linkOffset, ListArea area) {
    const uint64_t offset = area.offsetOf(link);
    if (offset < linkOffset || area.sizeBytes - offset < sizeof(Record) - linkOffset) {
        return nullptr;
    }
    return reinterpret_cast<Record*>(area.base + (offset - linkOffset));
}

/// Whether the neighbours of `node` point at it, as they do unless a process was killed between
/// the stores of an operation.
bool listAgrees(const List* node, ListArea area);

/// How many members there are, up to a link that leads outside.
size_t listCount(const List* head, ListArea area);

/// Calls `visit(List*)` for each member from the first one until it returns true; that member is
/// the result, null if none was. `visit` may remove the member that it gets. Ends at a link that
/// leads outside, and after as many steps as there is room for members.
template <class Visit>
List* listFind(const List* head, ListArea area, Visit&& visit) {
    if (listEmpty(head)) {
        return nullptr;
    }
    const uint64_t first = head->next;
    List* member = area.at(first);
    const uint64_t last = member == nullptr ? first : member->prev;
    uint64_t offset = first;
    for (uint64_t steps = area.sizeBytes / sizeof(List); member != nullptr && steps > 0; --steps) {
        const uint64_t next = member->next;  // before the member may be gone
        if (visit(member)) {
            return member;
        }
        if (offset == last || next == first) {
            return nullptr;
        }
        offset = next;
        member = area.at(offset);
    }
    return nullptr;
}

}  // namespace Vantel::Memory
