#pragma once

#include <cstddef>
#include <cstdint>

#include "memory/share/Buddy.h"

namespace Vantel::Memory {

/// What the small memory keeps of each of its pages, in the private area of the page's node. A
/// shared-memory format.
struct SmallMemPageDesc {
    List pageLink;        // in the zone's list of pages; offsets from the buddy's private base
    List freeList;        // head of the page's free blocks; offsets from the data base
    uint32_t dataOffset;  // of the page in the data segment
    uint32_t blockNum;    // blocks in the page, at most 64
    uint64_t usedBitmap;  // bit i: block i is handed out
};
static_assert(sizeof(SmallMemPageDesc) == PageNode::kPrivateBytes &&
              offsetof(SmallMemPageDesc, pageLink) == 0 &&
              offsetof(SmallMemPageDesc, freeList) == 16 &&
              offsetof(SmallMemPageDesc, dataOffset) == 32 &&
              offsetof(SmallMemPageDesc, blockNum) == 36 &&
              offsetof(SmallMemPageDesc, usedBitmap) == 40);

/// The zone: its head and the list of all pages.
struct SmallMemZone {
    ZoneHead head;
    List pages;
};
static_assert(sizeof(SmallMemZone) == kSmallMemZoneSize && offsetof(SmallMemZone, pages) == 8);

struct SmallMemPrivData;

/// Blocks of 64 bytes out of pages of the buddy. A page is there as long as one of its blocks is
/// in use. The pool's page size must be 1024 to 4096.
///
/// Threads: all functions, from any thread of any process; alloc and free take the process mutex
/// of index 1 and inside it that of the buddy.
struct SmallMemory {
    /// A block for 0 to 64 bytes; null with an error line for another size or if there is no page.
    void* (*alloc)(SmallMemory* thiz, int32_t size);
    /// Gives back the block that `ptr` points into. 0, or -1 with an error line: not of a page of
    /// small memory, or not in use.
    int (*free)(SmallMemory* thiz, void* ptr);
    const void* (*getDataBaseAddr)(SmallMemory* thiz);
    /// Ends the process, as it stands: a pool lives until its process ends.
    int32_t (*destroy)(SmallMemory* thiz);
    SmallMemPrivData* internal;
};

/// Process-local.
struct SmallMemPrivData {
    List* smallMemZone;
    Buddy* buddy;
    uint8_t* privBaseAddr;
    uint8_t* dataBaseAddr;
    ProcessMutex mutex;
};

/// Bytes of the list of pages in the zone, behind its head.
int32_t getSmallMemZoneSize();

/// Makes this process's table over the zone at `head`, which is set up if it is not ready. `buddy`
/// stays the caller's and must outlive it. 0, or -1 with an error line. Null ends the process.
int32_t createSmallMem(ZoneHead* head, Buddy* buddy, SmallMemory** smallMem);

// The functions of the table.
void* allocSmallMemImp(SmallMemory* thiz, int32_t size);
int freeSmallMemImp(SmallMemory* thiz, void* ptr);
const void* getDataBaseAddrImp(SmallMemory* thiz);
int32_t destroyImp(SmallMemory* thiz);

}  // namespace Vantel::Memory
