#pragma once

#include <cstddef>
#include <cstdint>

#include "memory/share/SmallMemory.h"

namespace Vantel::Memory {

/// What is known of one shared block, in a block of small memory. A shared-memory format; all
/// offsets count from the data segment's base.
struct ReferNode {
    int64_t offset;       // of the block
    uint32_t deliverRef;  // descriptions of it in flight
    uint32_t expire;      // rounds of cleaning that they have left
    List link;            // in the zone's list
    List pidList;         // head of its holders
};
static_assert(sizeof(ReferNode) == 48 && offsetof(ReferNode, offset) == 0 &&
              offsetof(ReferNode, deliverRef) == 8 && offsetof(ReferNode, expire) == 12 &&
              offsetof(ReferNode, link) == 16 && offsetof(ReferNode, pidList) == 32);

/// One holder of a block, likewise.
struct PidNode {
    List link;
    int32_t pid;
    uint32_t unused;
};
static_assert(sizeof(PidNode) == 24 && offsetof(PidNode, link) == 0 &&
              offsetof(PidNode, pid) == 16 && offsetof(PidNode, unused) == 20);

/// The zone: its head and the list of all referred blocks.
struct ReferZone {
    ZoneHead head;
    List nodes;
};
static_assert(sizeof(ReferZone) == kReferZoneSize && offsetof(ReferZone, nodes) == 8);

struct MemoryReferPrivData;

/// Which processes hold which block of the shared pool, and how many descriptions of it are under
/// way. A block goes back to the buddy when neither is left; the cleaning ends the references of
/// dead processes and of descriptions that nobody claims.
///
/// Threads: all functions, from any thread of any process; each holds the process mutex of index 0
/// for its whole length and takes those of the small memory and of the buddy inside it. Time: they
/// walk the list of all referred blocks. A null `thiz` ends the process. All but getReferCnt give
/// 0 or -1.
struct MemoryRefer {
    /// Enters the calling process as a holder of the block at `offset`, once more if it is one.
    /// -1 with an error line if small memory ran out.
    int32_t (*addRefer)(MemoryRefer* thiz, int32_t offset);
    /// Takes the calling process out once, and frees the block if nothing refers to it any more.
    /// -1 with an error line if the block is not known, and with a line on standard output if the
    /// process isn't its holder.
    int32_t (*releaseRefer)(MemoryRefer* thiz, int32_t offset);
    /// How many holders the block has.
    int32_t (*getReferCnt)(MemoryRefer* thiz, int32_t offset);
    /// Takes a process out once of each block that it holds.
    int32_t (*releaseByPid)(MemoryRefer* thiz, int32_t pid);
    /// One more description is under way; all of the block have two rounds of cleaning from now.
    int32_t (*incDeliverRef)(MemoryRefer* thiz, int32_t offset);
    /// One has arrived. -1 also if none was under way.
    int32_t (*decDeliverRef)(MemoryRefer* thiz, int32_t offset);
    /// One round of cleaning. -1 if nothing is referred to.
    int32_t (*expireClean)(MemoryRefer* thiz);
    /// Ends this process's view and frees `thiz`; the references stay. 0.
    int32_t (*destroy)(MemoryRefer* thiz);
    MemoryReferPrivData* internal;
};

/// Process-local.
struct MemoryReferPrivData {
    List* nodes;
    uint8_t* dataBaseAddr;
    SmallMemory* smallMem;
    Buddy* buddy;
    ProcessMutex mutex;
};

/// Makes this process's table over the zone at `head`, which is set up if it is not ready.
/// `smallMem` and `buddy` stay the caller's and must outlive it. 0, or -1 with an error line if
/// memory ran out. Null ends the process.
int32_t createMemRefer(ZoneHead* head, SmallMemory* smallMem, Buddy* buddy, MemoryRefer** refer);

/// As addRefer for a block that is known, held or described; -1 without a line for one that isn't:
/// it was freed, whatever the buddy's check of its offset says. For claiming a description.
int32_t addReferIfKnown(MemoryRefer* thiz, int32_t offset);

// The functions of the table.
int32_t memReferAddReferImp(MemoryRefer* thiz, int32_t offset);
int32_t memReferReleaseReferImp(MemoryRefer* thiz, int32_t offset);
int32_t memReferGetReferCntImp(MemoryRefer* thiz, int32_t offset);
int32_t memReferReleaseByPidImp(MemoryRefer* thiz, int32_t pid);
int32_t memReferIncDeliverRefImp(MemoryRefer* thiz, int32_t offset);
int32_t memReferDecDeliverRefImp(MemoryRefer* thiz, int32_t offset);
int32_t memReferExpireCleanImp(MemoryRefer* thiz);
int32_t memReferDestroyImp(MemoryRefer* thiz);

}  // namespace Vantel::Memory
