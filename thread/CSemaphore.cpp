#include "Vantel/Orbel/CSemaphore.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>

#include "frame/base/Require.h"
#include "thread/MonotonicTime.h"

namespace Vantel::Orbel {

class CSemaphore::Internal {
public:
    explicit Internal(int32_t initialCount);
    Internal(const Internal&) = delete;
    Internal& operator=(const Internal&) = delete;
    ~Internal();

    /// Waits for a unit, until `deadline` if there is one; takes one or all. The new count or -1.
    [[gnu::always_inline]] int32_t take(const timespec* deadline, bool all);

    /// take() until `timeoutNs` from now.
    int32_t takeWithin(uint64_t timeoutNs, bool all);

    bool lock() { return pthread_mutex_lock(&mMutex) == 0; }
    bool unlock() { return pthread_mutex_unlock(&mMutex) == 0; }

    /// The mutex is held. Tries a wake-up that failed with `error` again; the last error.
    [[gnu::noinline]] int signalAgain(int error, int32_t retries);

    pthread_mutex_t mMutex;
    pthread_cond_t mCondition;
    pthread_condattr_t mAttribute;
    int mCount;

private:
    /// The mutex is held. Apart from take(), whose usual way is shorter without it.
    [[gnu::noinline]] bool waitForUnit(const timespec* deadline);
};

namespace {

bool initPriorityInheriting(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attribute;
    if (pthread_mutexattr_init(&attribute) != 0) {
        return false;
    }
    const bool done = pthread_mutexattr_setprotocol(&attribute, PTHREAD_PRIO_INHERIT) == 0 &&
                      pthread_mutex_init(mutex, &attribute) == 0;
    pthread_mutexattr_destroy(&attribute);
    return done;
}

}  // namespace

CSemaphore::Internal::Internal(int32_t initialCount) : mCount(initialCount) {
    ORBEL_ASSERT(initialCount >= 0);
    ORBEL_REQUIRE(pthread_condattr_init(&mAttribute) == 0,
                  "pthread cond attribute setConfig failed\n");
    ORBEL_REQUIRE(pthread_condattr_setclock(&mAttribute, CLOCK_MONOTONIC) == 0,
                  "pthread cond set clock attribute failed\n");
    ORBEL_REQUIRE(pthread_cond_init(&mCondition, &mAttribute) == 0,
                  "pthread cond setConfig failed\n");
    ORBEL_REQUIRE(initPriorityInheriting(&mMutex), "pthread cond setConfig mutex failed\n");
}

CSemaphore::Internal::~Internal() {
    ORBEL_REQUIRE(pthread_mutex_destroy(&mMutex) == 0, "pthread destroy cond mutex failed\n");
    ORBEL_REQUIRE(pthread_cond_destroy(&mCondition) == 0, "pthread destroy cond failed\n");
    pthread_condattr_destroy(&mAttribute);
}

inline int32_t CSemaphore::Internal::take(const timespec* deadline, bool all) {
    if (!lock()) {
        return -1;
    }
    if (mCount == 0 && !waitForUnit(deadline)) {
        unlock();
        return -1;
    }
    mCount = all ? 0 : mCount - 1;
    const int32_t left = mCount;
    return unlock() ? left : -1;
}

bool CSemaphore::Internal::waitForUnit(const timespec* deadline) {
    int error = 0;
    while (mCount == 0 && error == 0) {
        error = deadline == nullptr ? pthread_cond_wait(&mCondition, &mMutex)
                                    : pthread_cond_timedwait(&mCondition, &mMutex, deadline);
    }
    return mCount != 0;  // one that came in the moment of the time-out is taken, too
}

int32_t CSemaphore::Internal::takeWithin(uint64_t timeoutNs, bool all) {
    timespec deadline;
    if (!monotonicDeadline(timeoutNs, deadline)) {
        ORBEL_LOG_ERROR("clock_gettime failed,errno=%d\n", errno);
        return -1;
    }
    return take(&deadline, all);
}

int CSemaphore::Internal::signalAgain(int error, int32_t retries) {
    for (int32_t i = 0; error != 0 && i < retries; ++i) {
        error = pthread_cond_signal(&mCondition);
    }
    if (error != 0) {
        ORBEL_LOG_WARN(" post pthread_cond_signal failed: errno=%d (%s)\n", error,
                       std::strerror(error));
    }
    return error;
}

CSemaphore::CSemaphore(int32_t initialCount) : mInternal(new Internal(initialCount)) {}

CSemaphore::~CSemaphore() {
    delete mInternal;
}

int32_t CSemaphore::pend() {
    return mInternal->take(nullptr, false);
}

int32_t CSemaphore::pend(uint32_t timeoutMs) {
    return mInternal->takeWithin(uint64_t{timeoutMs} * 1'000'000, false);
}

int32_t CSemaphore::pendUs(uint32_t timeoutUs, bool clearAll) {
    return mInternal->takeWithin(uint64_t{timeoutUs} * 1'000, clearAll);
}

int32_t CSemaphore::tryPend() {
    Internal& self = *mInternal;
    if (pthread_mutex_trylock(&self.mMutex) != 0) {
        return -1;
    }
    const bool taken = self.mCount > 0;
    if (taken) {
        --self.mCount;
    }
    self.unlock();
    return taken ? 0 : -1;  // not the new count, unlike pend()
}

int32_t CSemaphore::post(int32_t retries) {
    Internal& self = *mInternal;
    if (!self.lock()) {
        return -1;
    }
    int error = pthread_cond_signal(&self.mCondition);
    if (error != 0) [[unlikely]] {
        error = self.signalAgain(error, retries);
    }
    const int32_t count = ++self.mCount;  // exactly one, whatever the argument is
    return self.unlock() && error == 0 ? count : -1;
}

void CSemaphore::clear() {
    if (mInternal->lock()) {
        mInternal->mCount = 0;
        mInternal->unlock();
    }
}

}  // namespace Vantel::Orbel
