#include "Vantel/Orbel/CProcessMutex.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "frame/base/Require.h"
#include "frame/base/StringHash.h"
#include "frame/base/UniqueFd.h"

namespace Vantel::Orbel {

/// One set of one semaphore: 1 when the lock is free, 0 when it is taken.
///
/// A set is born with the value 0, and its maker sets it to 1. A maker that is killed in between
/// leaves a lock that looks taken; it is known by never having seen an operation, and whoever meets
/// one that is older than a second sets it to 1 in the maker's place.
class MutexInternal {
public:
    explicit MutexInternal(unsigned long key);

    bool enter();
    bool leave() { return operate(+1, nullptr); }

private:
    bool operate(short operation, const timespec* timeout) const;
    void repairIfAbandoned() const;
    bool isAbandoned() const;

    int mSemid;
    unsigned long mKey;
    std::atomic<bool> mUsed{false};  // the set has seen an operation of ours: its maker was done
};

namespace {

/// What semctl takes as its fourth argument; the caller has to define it.
union SemaphoreArgument {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

bool setValue(int semid, int value) {
    SemaphoreArgument argument{};
    argument.val = value;
    return semctl(semid, 0, SETVAL, argument) == 0;
}

/// Holds the lock of all repairs on the machine while it is valid. It is the lock of a directory
/// that is there anyway, so that it leaves nothing behind and a killed holder lets go of it.
UniqueFd tryRepairLock() {
    UniqueFd directory(open("/dev/shm", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.valid() && flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
        directory.reset();
    }
    return directory;
}

unsigned long keyOf(const char* name) {
    const bool valid = name != nullptr && *name != '\0';
    ORBEL_REQUIRE(valid, "CProcessMutex semget name invalid\n");
    return stringHash(name) & 0x7fffffff;
}

}  // namespace

MutexInternal::MutexInternal(unsigned long key) : mKey(key) {
    const auto systemKey = static_cast<key_t>(mKey);
    mSemid = semget(systemKey, 1, IPC_CREAT | IPC_EXCL | 0600);
    if (mSemid >= 0) {
        ORBEL_REQUIRE(setValue(mSemid, 1), "CProcessMutex semctl failed:%s\n",
                      std::strerror(errno));
        return;
    }
    if (errno == EEXIST) {
        mSemid = semget(systemKey, 0, IPC_CREAT);
    }
    ORBEL_REQUIRE(mSemid >= 0, "CProcessMutex semget failed:%s\n", std::strerror(errno));
    repairIfAbandoned();
}

bool MutexInternal::enter() {
    if (mUsed.load(std::memory_order_relaxed)) [[likely]] {
        return operate(-1, nullptr);
    }
    // Until an operation has gone through, the set may be one whose maker dies before it is done.
    constexpr timespec kPatience{1, 0};
    while (!operate(-1, &kPatience)) {
        if (errno != EAGAIN) {
            return false;
        }
        repairIfAbandoned();
    }
    mUsed.store(true, std::memory_order_relaxed);
    return true;
}

/// Undone by the kernel if the process dies. No retry after EINTR: that is the caller's to decide.
bool MutexInternal::operate(short operation, const timespec* timeout) const {
    sembuf step{0, operation, SEM_UNDO};
    return semtimedop(mSemid, &step, 1, timeout) == 0;
}

bool MutexInternal::isAbandoned() const {
    semid_ds state{};
    SemaphoreArgument argument{};
    argument.buf = &state;
    // The value first: an operation between the two shows in the time.
    return semctl(mSemid, 0, GETVAL) == 0 && semctl(mSemid, 0, IPC_STAT, argument) == 0 &&
           state.sem_otime == 0 && time(nullptr) - state.sem_ctime > 1;
}

void MutexInternal::repairIfAbandoned() const {
    if (!isAbandoned()) {
        return;
    }
    // One at a time, and only as long as it is still so: another may have repaired it and be
    // inside already, which has left its mark by then.
    const UniqueFd lock = tryRepairLock();
    if (lock.valid() && isAbandoned()) {
        setValue(mSemid, 1);
    }
}

CProcessMutex::CProcessMutex(unsigned long key) : mInternal(new MutexInternal(key)) {}

CProcessMutex::CProcessMutex(const char* name) : CProcessMutex(keyOf(name)) {}

CProcessMutex::~CProcessMutex() {
    delete mInternal;
}

bool CProcessMutex::enter() {
    if (mInternal->enter()) [[likely]] {
        return true;
    }
    ORBEL_LOG_WARN(" process mutex enter failed :%s\n", std::strerror(errno));
    return false;
}

bool CProcessMutex::leave() {
    if (mInternal->leave()) [[likely]] {
        return true;
    }
    ORBEL_LOG_WARN(" process mutex leave failed :%s\n", std::strerror(errno));
    return false;
}

}  // namespace Vantel::Orbel
