#pragma once

#include <cstddef>
#include <cstdint>

#include "memory/share/BuddyLayout.h"
#include "memory/share/ProcessMutex.h"
#include "memory/share/ShareZone.h"

namespace Vantel::Memory {

/// By value. `orderNum` bounds the number of orders, 0: no bound.
struct BuddyConfig {
    uint32_t dataSize;
    uint32_t pageSize;
    uint32_t orderNum;
};

struct BuddyPrivateData;

/// The page allocator of the shared pool, as one process sees it: bookkeeping in a zone of one
/// segment, pages in another, both mapped anywhere, by several processes at once. Every link is an
/// offset and is looked at before it is followed: a damaged zone loses memory and is told of in
/// the log, but never leads out of the mappings.
///
/// Threads: all functions, from any thread of any process; they take the process mutex of index 2,
/// except for getOffset and getPriv, and must not be called with it held. A null `thiz` ends the
/// process, as does any null argument of getOffset (but `ptr`), getPriv and malloc.
struct Buddy {
    /// The smallest block that holds `*size` bytes; the size that it has is written back. Null for
    /// a size of 0, and with an error line if there is no such block.
    void* (*malloc)(Buddy* thiz, int32_t* size);
    /// 0, also for null; -1 with an error line for what heads no allocated block. A block that
    /// merged as an upper half on its first release passes that check once more.
    int32_t (*free)(Buddy* thiz, void* ptr);
    /// `*offset` = where `ptr` is in the data segment, also on failure. 0 if an allocated block
    /// begins there, else -1 with an error line (null: without, and nothing written).
    int32_t (*getOffset)(Buddy* thiz, void* ptr, int32_t* offset);
    /// The address here of the allocated block at `offset`; null with an error line if none is.
    /// That it passes does not prove that the block is held, see free: the references know.
    void* (*getAddress)(Buddy* thiz, int32_t offset);
    const void* (*getDataBaseAddr)(Buddy* thiz);
    /// The private area (48 bytes, `*size`) of the page that holds `ptr`, which is not checked.
    void* (*getPriv)(Buddy* thiz, void* ptr, int32_t* size);
    /// The BuddyInfo, from which the offsets of the zone's lists count.
    const void* (*getPrivBaseAddr)(Buddy* thiz);
    /// Logs a line for each free block.
    void (*printNodeInfo)(Buddy* thiz);
    /// Bytes.
    size_t (*getFreeSize)(Buddy* thiz);
    size_t (*getTotalSize)(Buddy* thiz);
    /// Ends this process's view and frees `thiz`; the zone stays. 0.
    int32_t (*destroy)(Buddy* thiz);
    BuddyPrivateData* internal;
};

/// Process-local. What was checked against the zone's size when the table was made is kept here,
/// and not read from the zone again.
struct BuddyPrivateData {
    uint8_t* dataBase;
    BuddyInfo* info;
    ProcessMutex mutex;
    BuddyConfig config;
    uint32_t pageCount;
    uint32_t pageShift;
    uint64_t infoBytes;  // of the zone, from `info` on
    List* lists;
    PageNode* nodes;
};

/// Bytes that the zone needs behind its head. A page or data size of 0 ends the process.
/// -1 with an error line if they don't fit into 31 bits.
int32_t getBuddyZoneSize(BuddyConfig config);

/// Makes this process's table over the zone at `head` and the pages at `data`. A zone that is not
/// ready is set up by `config` first; in a ready one `config` is not looked at. The caller has
/// called initProcessMutex(), has written `head->size`, and knows that the zone lies wholly in its
/// segment; it compares getBuddyConfig() with the size of the data segment afterwards.
/// 0, or -1 with an error line: out of memory, or the zone contradicts itself or its size. Null
/// arguments end the process, as does for a fresh zone a page size that is no power of two or
/// larger than the data.
int32_t createBuddy(BuddyConfig config, ZoneHead* head, uint8_t* data, Buddy** buddy);

/// What the zone was set up with, as it was when `buddy` was made; `orderNum` is the real number
/// of orders. 0.
int32_t getBuddyConfig(const Buddy* buddy, BuddyConfig& config);

/// Where the users of its pages may follow links: the zone from the BuddyInfo on (private areas),
/// and the pages.
ListArea buddyPrivateArea(const Buddy* buddy);
ListArea buddyDataArea(const Buddy* buddy);

// The functions of the table.
void* buddyMallocImp(Buddy* thiz, int32_t* size);
int32_t buddyFreeImp(Buddy* thiz, void* ptr);
int32_t buddyGetOffsetImp(Buddy* thiz, void* ptr, int32_t* offset);
void* buddyGetAddressImp(Buddy* thiz, int32_t offset);
const void* buddyGetDataBaseAddrImp(Buddy* thiz);
void* buddyGetPrivImp(Buddy* thiz, void* ptr, int32_t* size);
const void* buddyGetPrivBaseAddrImp(Buddy* thiz);
void buddyPrintNodeInfoImp(Buddy* thiz);
size_t buddyGetFreeSizeImp(Buddy* thiz);
size_t buddyTotalSizeImp(Buddy* thiz);
int32_t buddyDestroyImp(Buddy* thiz);

}  // namespace Vantel::Memory
