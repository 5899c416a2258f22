#include "Vantel/Orbel/CReadWriteMutex.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frame/base/Require.h"
#include "thread/LeaveFailed.h"

namespace Vantel::Orbel {

namespace {

int knownPriority(RW_PRIORITY priority) {
    if (priority != kReadWriteDefault && priority != kReadWriteWriters) {
        ORBEL_LOG_WARN(" Input rwpriority level error, priorityDefault used!");
        return kReadWriteDefault;
    }
    return priority;
}

bool initLock(pthread_rwlock_t* lock, int priority) {
    // The kind that is called PREFER_WRITER without more does not prefer them in the GNU library:
    // readers still pass a waiting writer.
    const int kind = priority == kReadWriteWriters ? PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP
                                                   : PTHREAD_RWLOCK_DEFAULT_NP;
    pthread_rwlockattr_t attribute;
    if (pthread_rwlockattr_init(&attribute) != 0) {
        return false;
    }
    const bool done = pthread_rwlockattr_setkind_np(&attribute, kind) == 0 &&
                      pthread_rwlock_init(lock, &attribute) == 0;
    pthread_rwlockattr_destroy(&attribute);
    return done;
}

}  // namespace

CReadWriteMutex::CReadWriteMutex() : CReadWriteMutex(kReadWriteDefault) {}

CReadWriteMutex::CReadWriteMutex(RW_PRIORITY priority)
    : mInternal(new RWMutexInternal{knownPriority(priority), nullptr}) {
    mInternal->lock = static_cast<pthread_rwlock_t*>(std::malloc(sizeof(pthread_rwlock_t)));
    ORBEL_REQUIRE(mInternal->lock != nullptr, "out of memory\n");
    ORBEL_REQUIRE(initLock(mInternal->lock, mInternal->priority), "setConfig rwlock error\n");
}

CReadWriteMutex::~CReadWriteMutex() {
    ORBEL_REQUIRE(pthread_rwlock_destroy(mInternal->lock) == 0, "destroy rwlock failed\n");
    std::free(mInternal->lock);
    delete mInternal;
}

bool CReadWriteMutex::readingFailed(int error) {
    ORBEL_LOG_WARN(" pthread_rwlock_rdlock called failed for :%s\n", std::strerror(error));
    return false;
}

bool CReadWriteMutex::writingFailed(int error) {
    ORBEL_LOG_WARN(" pthread_rwlock_wrlock called failed for :%s\n", std::strerror(error));
    return false;
}

bool CReadWriteMutex::leaveFailed() {
    const bool known = isKnownLeaveError();
    ORBEL_REQUIRE(!known, "release rw lock failed,errno:,reason %s\n", std::strerror(errno));
    return true;
}

}  // namespace Vantel::Orbel
