#include "memory/share/ShareZone.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frame/base/Require.h"

namespace Vantel::Memory {

namespace {

constexpr int kAccess = 0640;
static_assert(kShareMemCreate == IPC_CREAT);

/// The segment of `key`; -1 with errno set. One that is in the way of a new one (or is smaller than
/// asked for, as it stands) is removed first.
int segmentOf(key_t key, size_t size, bool create) {
    const int flags = create ? IPC_CREAT | IPC_EXCL | kAccess : kAccess;
    const int segment = shmget(key, size, flags);
    if (segment >= 0) {
        return segment;
    }
    const int cause = errno;
    const int inTheWay = shmget(key, 0, create ? IPC_CREAT | kAccess : kAccess);
    if (inTheWay < 0) {
        if (cause != EEXIST) {
            errno = cause;  // with no segment there, what the second call says is beside the point
        }
        return -1;
    }
    shmctl(inTheWay, IPC_RMID, nullptr);
    return shmget(key, size, flags);
}

int32_t detach(void* addr) {
    if (shmdt(addr) != 0) {
        ORBEL_LOG_ERROR("shmdt failed cased by %s.\n", std::strerror(errno));
        return -1;
    }
    return 0;
}

int32_t removeSegment(const char* key) {
    const int segment = shmget(stringToKey(key), 0, kAccess);
    if (segment < 0) {
        ORBEL_LOG_ERROR("shmget failed cased by %s.\n", std::strerror(errno));
        return -1;
    }
    if (shmctl(segment, IPC_RMID, nullptr) != 0) {
        ORBEL_LOG_ERROR("shmctl failed cased by %s.\n", std::strerror(errno));
        return -1;
    }
    return 0;
}

}  // namespace

bool zoneReady(const ZoneHead* head) {
    return __atomic_load_n(&head->magic, __ATOMIC_ACQUIRE) == kZoneMagic;
}

void setZoneReady(ZoneHead* head) {
    __atomic_store_n(&head->magic, kZoneMagic, __ATOMIC_RELEASE);
}

int32_t stringToKey(const char* key) {
    ORBEL_REQUIRE(key != nullptr, "key != osNullptr\n");
    uint32_t sum = 0x11111111;
    for (; *key != '\0'; ++key) {
        const auto byte = static_cast<unsigned char>(*key);
        sum += byte <= 125 ? byte : 0;  // the others do not count, as it stands
    }
    return static_cast<int32_t>(sum);
}

void* shareMemGet(const char* key, int32_t size, int32_t flags) {
    const bool create = (flags & kShareMemCreate) != 0;
    if (key == nullptr || (create && size < 1)) {
        ORBEL_LOG_ERROR("param invalid.\n");
        return nullptr;
    }
    // A negative size is too large for any segment.
    const int segment = segmentOf(stringToKey(key), static_cast<size_t>(size), create);
    if (segment < 0) {
        ORBEL_LOG_ERROR("shmget failed cased by %s.\n", std::strerror(errno));
        return nullptr;
    }
    void* const addr = shmat(segment, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        ORBEL_LOG_ERROR("shmctl failed cased by %s.\n", std::strerror(errno));  // as it stands
        shmctl(segment, IPC_RMID, nullptr);
        return nullptr;
    }
    return addr;
}

int32_t shareMemRelease(const char* key, void* addr, int32_t how) {
    if (key == nullptr || addr == nullptr) {
        ORBEL_LOG_ERROR("param invalid.\n");
        return -1;
    }
    switch (how) {
        case kShareMemDetach:
            return detach(addr);
        case kShareMemRemove:
            return removeSegment(key);
        default:
            ORBEL_LOG_ERROR("unknown flag %d.\n", how);
            return -1;
    }
}

ShareMemState shareMemState(const char* key) {
    shmid_ds state{};
    const int segment = shmget(stringToKey(key), 0, kAccess);
    if (segment < 0 || shmctl(segment, IPC_STAT, &state) != 0) {
        return {-1, 0};
    }
    return {segment, state.shm_segsz};
}

int32_t memProtect(void* addr, int32_t len, int32_t prot) {
    const int result = mprotect(addr, static_cast<size_t>(len), prot);
    if (result < 0) {
        ORBEL_LOG_ERROR("mprotect failed cased by %s.\n", std::strerror(errno));
    }
    return result;
}

int32_t getPageSize() {
    return getpagesize();
}

}  // namespace Vantel::Memory
