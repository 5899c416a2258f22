// Each lock beside its POSIX counterpart: nanoseconds of one enter and leave (one post and pend),
// alone and with two threads at it, and the ratio. The two are measured in turns of some ten
// microseconds and compared by their medians, so that a busy machine disturbs both alike.
// Two threads meet only if both have a processor: those figures want an otherwise idle machine.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CProcessMutex.h"
#include "Vantel/Orbel/CReadWriteMutex.h"
#include "Vantel/Orbel/CRecursiveMutex.h"
#include "Vantel/Orbel/CSemaphore.h"
#include "Vantel/Orbel/CSpin.h"
#include "Vantel/Orbel/PrioMutex.h"
#include "Vantel/Orbel/RWSpinLock.h"
#include "Vantel/Orbel/SHMMutex.h"
#include "Vantel/Orbel/SpinLock.h"
#include "Vantel/Orbel/SpinSem.h"

using namespace Vantel::Orbel;

namespace {

using Clock = std::chrono::steady_clock;

struct PosixMutex {
    explicit PosixMutex(int type = PTHREAD_MUTEX_DEFAULT, int protocol = PTHREAD_PRIO_NONE,
                        int robust = PTHREAD_MUTEX_STALLED, int shared = PTHREAD_PROCESS_PRIVATE) {
        pthread_mutexattr_t attribute;
        pthread_mutexattr_init(&attribute);
        pthread_mutexattr_settype(&attribute, type);
        pthread_mutexattr_setprotocol(&attribute, protocol);
        pthread_mutexattr_setrobust(&attribute, robust);
        pthread_mutexattr_setpshared(&attribute, shared);
        pthread_mutex_init(&mMutex, &attribute);
    }
    bool enter() { return pthread_mutex_lock(&mMutex) == 0; }
    bool leave() { return pthread_mutex_unlock(&mMutex) == 0; }
    pthread_mutex_t mMutex;
};
struct PosixRecursive : PosixMutex {
    PosixRecursive() : PosixMutex(PTHREAD_MUTEX_RECURSIVE) {}
};
struct PosixPriority : PosixMutex {
    PosixPriority() : PosixMutex(PTHREAD_MUTEX_DEFAULT, PTHREAD_PRIO_INHERIT) {}
};
struct PosixShared : PosixMutex {
    PosixShared()
        : PosixMutex(PTHREAD_MUTEX_RECURSIVE, PTHREAD_PRIO_INHERIT, PTHREAD_MUTEX_ROBUST,
                     PTHREAD_PROCESS_SHARED) {}
};
struct PosixSpin {
    PosixSpin() { pthread_spin_init(&mLock, PTHREAD_PROCESS_PRIVATE); }
    bool enter() { return pthread_spin_lock(&mLock) == 0; }
    bool leave() { return pthread_spin_unlock(&mLock) == 0; }
    pthread_spinlock_t mLock;
};

struct PosixReadWrite {
    bool enterReading() { return pthread_rwlock_rdlock(&mLock) == 0; }
    bool enterWriting() { return pthread_rwlock_wrlock(&mLock) == 0; }
    bool leave() { return pthread_rwlock_unlock(&mLock) == 0; }
    pthread_rwlock_t mLock = PTHREAD_RWLOCK_INITIALIZER;
};
template <class Lock>
struct Reading {
    static constexpr bool kShared = true;
    void enter() { mLock.enterReading(); }
    void leave() { mLock.leave(); }
    Lock mLock;
};
template <class Lock>
struct Writing {
    void enter() { mLock.enterWriting(); }
    void leave() { mLock.leave(); }
    Lock mLock;
};
struct SpinReading {
    static constexpr bool kShared = true;
    void enter() { mLock.enterReading(); }
    void leave() { mLock.leaveReading(); }
    RWSpinLock mLock;
};
struct SpinWriting {
    void enter() { mLock.enterWriting(); }
    void leave() { mLock.leaveWriting(); }
    RWSpinLock mLock;
};

/// Semaphores of one unit as locks.
struct OurSemaphore {
    void enter() { mSemaphore.pend(); }
    void leave() { mSemaphore.post(0); }
    CSemaphore mSemaphore{1};
};
/// What CSemaphore stands for, behind a call as sem_t is: that one inherits no priority.
struct HandMadeSemaphore {
    [[gnu::noinline]] void enter() {
        mMutex.enter();
        while (mCount == 0) {
            pthread_cond_wait(&mCondition, &mMutex.mMutex);
        }
        --mCount;
        mMutex.leave();
    }
    [[gnu::noinline]] void leave() {
        mMutex.enter();
        pthread_cond_signal(&mCondition);
        ++mCount;
        mMutex.leave();
    }
    PosixPriority mMutex;
    pthread_cond_t mCondition = PTHREAD_COND_INITIALIZER;
    int mCount = 1;
};
struct OurSpinSem {
    void enter() { mSemaphore.wait(-1); }
    void leave() { mSemaphore.post(1); }
    SpinSem mSemaphore{1, 100};
};
struct PosixSemaphore {
    PosixSemaphore() { sem_init(&mSemaphore, 0, 1); }
    void enter() { sem_wait(&mSemaphore); }
    void leave() { sem_post(&mSemaphore); }
    sem_t mSemaphore;
};

struct OurProcessMutex : CProcessMutex {
    OurProcessMutex() : CProcessMutex(static_cast<unsigned long>(key())) {}
    ~OurProcessMutex() override { semctl(semget(key(), 0, 0), 0, IPC_RMID); }
    static int key() { return 0x4c420000 + getpid(); }
};
struct PosixSemop {
    PosixSemop() { semctl(mId, 0, SETVAL, 1); }
    ~PosixSemop() { semctl(mId, 0, IPC_RMID); }
    void enter() { step(-1); }
    void leave() { step(+1); }
    void step(short by) {
        sembuf operation{0, by, SEM_UNDO};
        semop(mId, &operation, 1);
    }
    const int mId = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
};

/// Readers do not keep each other out of a count.
template <class Lock>
constexpr bool kExclusive = !requires {
    Lock::kShared;
};

/// Nanoseconds of one of `rounds` passes.
template <class Lock>
double time(Lock& lock, int rounds, long& sharedCount) {
    long ownCount = 0;
    long& count = kExclusive<Lock> ? sharedCount : ownCount;
    const auto start = Clock::now();
    for (int i = 0; i < rounds; ++i) {
        lock.enter();
        benchmark::DoNotOptimize(++count);
        lock.leave();
    }
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / rounds;
}

/// The same by two threads that start together.
template <class Lock>
double timeBoth(Lock& lock, int rounds, long& count) {
    std::atomic<int> ready{0};
    const auto work = [&] {
        ++ready;
        while (ready < 2) {
            std::this_thread::yield();
        }
        return time(lock, rounds, count);
    };
    double otherNs = 0;
    std::thread other([&] { otherNs = work(); });
    const double ownNs = work();
    other.join();
    return std::max(ownNs, otherNs) / 2;
}

double median(std::vector<double>& values) {
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

template <class Ours, class Posix>
void compare(benchmark::State& state, double (*timeOurs)(Ours&, int, long&),
             double (*timePosix)(Posix&, int, long&), int rounds) {
    std::thread([] {}).join();  // as long as there was only one thread, the C library cheats
    Ours ours;
    Posix posix;
    std::vector<double> oursNs;
    std::vector<double> posixNs;
    long oursCount = 0;
    long posixCount = 0;
    for (auto _ : state) {
        oursNs.push_back(timeOurs(ours, rounds, oursCount));
        posixNs.push_back(timePosix(posix, rounds, posixCount));
    }
    if (oursCount != posixCount || oursCount % rounds != 0) {
        state.SkipWithError("a lock let two in");
        return;
    }
    const double oursMedian = median(oursNs);
    const double posixMedian = median(posixNs);
    state.counters["ours_ns"] = oursMedian;
    state.counters["posix_ns"] = posixMedian;
    state.counters["ratio"] = oursMedian / posixMedian;
}

template <class Ours, class Posix>
void alone(benchmark::State& state) {
    compare<Ours, Posix>(state, &time<Ours>, &time<Posix>, 1000);
}

template <class Ours, class Posix>
void together(benchmark::State& state) {
    compare<Ours, Posix>(state, &timeBoth<Ours>, &timeBoth<Posix>, 200000);
}

#define ORBEL_LOCK_BENCH(name, ...)                                       \
    BENCHMARK(alone<__VA_ARGS__>)->Name(name "/alone")->Iterations(5000); \
    BENCHMARK(together<__VA_ARGS__>)->Name(name "/two threads")->Iterations(20)

ORBEL_LOCK_BENCH("CMutex, pthread_mutex", CMutex, PosixMutex);
ORBEL_LOCK_BENCH("PrioMutex, priority-inheriting", PrioMutex, PosixPriority);
ORBEL_LOCK_BENCH("CRecursiveMutex, recursive", CRecursiveMutex, PosixRecursive);
ORBEL_LOCK_BENCH("SHMMutex, robust and shared", SHMMutex, PosixShared);
ORBEL_LOCK_BENCH("CSpin, pthread_spin", CSpin, PosixSpin);
ORBEL_LOCK_BENCH("SpinLock, pthread_spin", SpinLock, PosixSpin);
ORBEL_LOCK_BENCH("CReadWriteMutex reading, rwlock", Reading<CReadWriteMutex>,
                 Reading<PosixReadWrite>);
ORBEL_LOCK_BENCH("CReadWriteMutex writing, rwlock", Writing<CReadWriteMutex>,
                 Writing<PosixReadWrite>);
ORBEL_LOCK_BENCH("RWSpinLock reading, rwlock", SpinReading, Reading<PosixReadWrite>);
ORBEL_LOCK_BENCH("RWSpinLock writing, rwlock", SpinWriting, Writing<PosixReadWrite>);
ORBEL_LOCK_BENCH("CSemaphore, mutex and condition", OurSemaphore, HandMadeSemaphore);
ORBEL_LOCK_BENCH("SpinSem, sem_t", OurSpinSem, PosixSemaphore);
BENCHMARK(alone<OurProcessMutex, PosixSemop>)->Name("CProcessMutex, semop/alone")->Iterations(500);

}  // namespace
