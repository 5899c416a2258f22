#include "Vantel/Orbel/SHMMutex.h"

#include <cerrno>

#include "frame/base/Assert.h"
#include "thread/LeaveFailed.h"

namespace Vantel::Orbel {

SHMMutex::SHMMutex() {
    pthread_mutexattr_t attribute;
    pthread_mutexattr_init(&attribute);
    pthread_mutexattr_setpshared(&attribute, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setprotocol(&attribute, PTHREAD_PRIO_INHERIT);
    pthread_mutexattr_setrobust(&attribute, PTHREAD_MUTEX_ROBUST);
    pthread_mutexattr_settype(&attribute, PTHREAD_MUTEX_RECURSIVE);
    const int ret = pthread_mutex_init(&mMutex, &attribute);
    ORBEL_ASSERT(ret == 0);
    pthread_mutexattr_destroy(&attribute);
}

SHMMutex::~SHMMutex() {
    const int ret = pthread_mutex_destroy(&mMutex);
    ORBEL_ASSERT(ret == 0);
}

bool SHMMutex::enterFailed(int error) {
    if (error != EOWNERDEAD) {
        return false;
    }
    // We hold it now. It is marked good, given back and taken like any other, from whoever has
    // been waiting or has come in between (and may have died in it, too).
    pthread_mutex_consistent(&mMutex);
    pthread_mutex_unlock(&mMutex);
    return enter();
}

bool SHMMutex::tryEnterFailed(int error) {
    if (error == EOWNERDEAD) {
        // We hold it, although the answer will be no: it has to be given back, and marked good
        // before that, or nobody could ever take it again.
        pthread_mutex_consistent(&mMutex);
        pthread_mutex_unlock(&mMutex);
    }
    return false;
}

bool SHMMutex::leaveFailed() {
    const bool known = isKnownLeaveError();
    ORBEL_ASSERT(!known);
    return true;
}

}  // namespace Vantel::Orbel
