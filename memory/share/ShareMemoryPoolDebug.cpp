#include "memory/share/ShareMemoryPoolDebug.h"

#include <sys/mman.h>

#include <cstring>
#include <limits>

#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "memory/share/Buddy.h"
#include "memory/share/ShareZone.h"

namespace Vantel::Memory {

namespace {

constexpr uint32_t kGuardBehind = 1;
constexpr uint32_t kGuardInFront = 2;

}  // namespace

ShareMemoryPoolDebug::ShareMemoryPoolDebug(Buddy* buddy, MemoryRefer* refer, SmallMemory* smallMem,
                                           uint32_t debugMode)
    : ShareMemoryPool(buddy, refer, smallMem), mBuddy(buddy), mDebugMode(debugMode) {}

/// Where the guard and the data go in a block of `granted` bytes. False for an unknown mode.
bool ShareMemoryPoolDebug::place(uint8_t* raw, int32_t granted, int32_t size,
                                 Placement& placement) const {
    const auto page = static_cast<uint64_t>(getPageSize());
    const auto begin = reinterpret_cast<uint64_t>(raw);
    if (mDebugMode == kGuardBehind) {
        const uint64_t end = begin + static_cast<uint64_t>(granted);
        const uint64_t lastPage = end / page * page - page;
        placement.guard = raw + (lastPage - begin);
        placement.user = placement.guard - size;
        return true;
    }
    if (mDebugMode == kGuardInFront) {
        placement.guard = raw + (alignUp(begin, page) - begin);
        placement.user = placement.guard + page;
        return true;
    }
    return false;
}

void* ShareMemoryPoolDebug::malloc(int32_t& size) {
    const int64_t wanted = int64_t{size} + getPageSize() + int64_t{sizeof(GuardRecord)};
    // What fits no block is asked for as it is, for the plain pool to refuse.
    int32_t granted = size < 0 || wanted > std::numeric_limits<int32_t>::max()
                          ? -1
                          : static_cast<int32_t>(wanted);
    auto* const raw = static_cast<uint8_t*>(ShareMemoryPool::malloc(granted));
    if (raw == nullptr) {
        return nullptr;
    }
    Placement placement{};
    if (!place(raw, granted, size, placement)) {
        ShareMemoryPool::free(raw);
        return nullptr;
    }
    // Before the guard is set: in mode 2 the record lies in it, and stays readable.
    const GuardRecord record{static_cast<uint64_t>(size), reinterpret_cast<uint64_t>(raw),
                             reinterpret_cast<uint64_t>(placement.guard), kGuardMagic};
    std::memcpy(placement.user - sizeof record, &record, sizeof record);
    if (memProtect(placement.guard, getPageSize(), PROT_READ) != 0) {
        ShareMemoryPool::free(raw);
        return nullptr;
    }
    return placement.user;
}

bool ShareMemoryPoolDebug::free(void* addr) {
    GuardRecord record{};
    if (!findRecord(addr, record)) {
        ShareMemoryPool::free(addr);
        return true;
    }
    auto* const guard = reinterpret_cast<void*>(record.guard);
    ORBEL_REQUIRE(memProtect(guard, getPageSize(), PROT_READ | PROT_WRITE) == 0,
                  "memProtect failed\n");
    // A second free() of the address must not be taken for that of the block's next owner.
    std::memset(static_cast<uint8_t*>(addr) - sizeof record, 0, sizeof record);
    ShareMemoryPool::free(reinterpret_cast<void*>(record.raw));
    return true;
}

bool ShareMemoryPoolDebug::getOffset(void* buf, int32_t& offset) {
    GuardRecord record{};
    return ShareMemoryPool::getOffset(buf, offset) && !findRecord(buf, record);
}

/// The record in front of `addr`, if there is one. It stands where others write, and is another
/// process's if that allocated the block: addresses outside of this mapping are no record's.
bool ShareMemoryPoolDebug::findRecord(const void* addr, GuardRecord& record) const {
    const auto user = reinterpret_cast<uint64_t>(addr);
    if (!inData(user - sizeof record, sizeof record)) {
        return false;
    }
    std::memcpy(&record, static_cast<const uint8_t*>(addr) - sizeof record, sizeof record);
    const auto page = static_cast<uint64_t>(getPageSize());
    return record.magic == kGuardMagic && record.guard % page == 0 && inData(record.guard, page) &&
           inData(record.raw, 1);
}

bool ShareMemoryPoolDebug::inData(uint64_t address, uint64_t bytes) const {
    const auto base = reinterpret_cast<uint64_t>(mBuddy->getDataBaseAddr(mBuddy));
    const uint64_t size = mBuddy->getTotalSize(mBuddy);
    return address >= base && address - base < size && size - (address - base) >= bytes;
}

}  // namespace Vantel::Memory
