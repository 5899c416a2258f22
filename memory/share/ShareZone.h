#pragma once

#include <cstddef>
#include <cstdint>

namespace Vantel::Memory {

/// The head of each zone of the metadata segment, which holds, one directly behind the other: the
/// process mutexes, the references, the small memory, the buddy. A format between separately built
/// processes, little-endian as stored.
struct ZoneHead {
    uint32_t size;   // bytes of the zone with this head; the next one stands that far on
    uint32_t magic;  // kZoneMagic once what is behind the head is complete; written last
};
static_assert(sizeof(ZoneHead) == 8 && offsetof(ZoneHead, size) == 0 &&
              offsetof(ZoneHead, magic) == 4);

inline constexpr uint32_t kZoneMagic = 0x12345678;

/// Sizes of the zones, head included. That of the buddy: getBuddyZoneSize() + sizeof(ZoneHead).
inline constexpr uint32_t kMutexZoneSize = 248;
inline constexpr uint32_t kReferZoneSize = 24;
inline constexpr uint32_t kSmallMemZoneSize = 24;

/// Whether what is behind the head may be relied on (acquire: it is seen complete then).
bool zoneReady(const ZoneHead* head);
/// Declares what is behind the head complete (release).
void setZoneReady(ZoneHead* head);

/// `flags` of shareMemGet(): make the segment, in place of one that is there. That of shmget().
inline constexpr int32_t kShareMemCreate = 0x200;
/// `how` of shareMemRelease().
inline constexpr int32_t kShareMemDetach = 1;
inline constexpr int32_t kShareMemRemove = 2;

/// The System V key of a name: the sum of its bytes from 1 to 125 on top of 0x11111111, modulo
/// 2^32. The name is that of no file. Null ends the process.
int32_t stringToKey(const char* key);

/// Maps the segment of `key`; null with an error line on failure. With kShareMemCreate it is made
/// new with `size` (at least 1) bytes of zeros, and one that is there is removed first. Otherwise
/// `size` 0 takes the segment as it is; a size above that of the segment removes it, as it stands.
/// Any thread; the caller unmaps by shareMemRelease().
void* shareMemGet(const char* key, int32_t size, int32_t flags);

/// kShareMemDetach: unmaps `addr`. kShareMemRemove: removes the segment of `key`, which goes when
/// the last process has unmapped it; `addr` is not used, but a null one is refused, as it stands.
/// 0, or -1 with an error line.
int32_t shareMemRelease(const char* key, void* addr, int32_t how);

/// A segment by its number, which no later one of the same key has, and its bytes. Whatever is read
/// from a segment is to be checked against them.
struct ShareMemState {
    int id;
    size_t bytes;

    bool operator==(const ShareMemState&) const = default;
};

/// The segment that `key` names now; -1 and 0 (without a line) if there is none.
ShareMemState shareMemState(const char* key);

/// mprotect() of `len` bytes; 0, or its negative result with an error line.
int32_t memProtect(void* addr, int32_t len, int32_t prot);

/// Bytes of a page of the system.
int32_t getPageSize();

/// `n` rounded up to a multiple of `a`, a power of two.
template <class T>
constexpr T alignUp(T n, T a) {
    return static_cast<T>((n + a - 1) & -a);
}

}  // namespace Vantel::Memory
