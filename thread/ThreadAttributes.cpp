#include "thread/ThreadAttributes.h"

#include <sched.h>

#include <algorithm>

#include "frame/base/Log.h"
#include "thread/ThreadInternal.h"

namespace Vantel::Orbel {

ThreadAttributes::~ThreadAttributes() {
    if (mInitialised) {
        pthread_attr_destroy(&mAttributes);
    }
}

bool ThreadAttributes::init() {
    const int error = pthread_attr_init(&mAttributes);
    mInitialised = error == 0;
    if (!mInitialised) {
        ORBEL_LOG_ERROR("pthread attribute setConfig failed,errno:%d\n", error);
    }
    return mInitialised;
}

bool ThreadAttributes::setStackSize(int stackSize) {
    constexpr int kMinStackSize = 16384;
    if (stackSize <= 0) {
        return true;
    }
    const int size = std::max(stackSize, kMinStackSize);
    const int error = pthread_attr_setstacksize(&mAttributes, static_cast<size_t>(size));
    if (error != 0) {
        ORBEL_LOG_ERROR("pthread attr setstacksize = %d failed, errno=%d\n", size, error);
    }
    return error == 0;
}

bool ThreadAttributes::setSchedule(int policy, int priority) {
    if (policy == 1) {
        return setRealtime(priority);
    }
    if (policy != 0) {
        ORBEL_LOG_WARN(" CThread::CreateThread policy isn't set properly, policy = %d\n", policy);
        return true;
    }
    // Without explicit scheduling this is not applied: the thread inherits its creator's.
    const int error = pthread_attr_setschedpolicy(&mAttributes, SCHED_OTHER);
    if (error != 0) {
        ORBEL_LOG_WARN(" pthread attr pthread_attr_setschedpolicy(SCHED_OTHER) failed, errno=%d\n",
                       error);
    }
    return error == 0;
}

bool ThreadAttributes::setRealtime(int priority) {
    int error = pthread_attr_setinheritsched(&mAttributes, PTHREAD_EXPLICIT_SCHED);
    if (error != 0) {
        ORBEL_LOG_ERROR("pthread attr setinheritsched PTHREAD_EXPLICIT_SCHED failed, errno=%d\n",
                        error);
        return false;
    }
    error = pthread_attr_setschedpolicy(&mAttributes, SCHED_FIFO);
    if (error != 0) {
        ORBEL_LOG_ERROR("pthread attr set SCHED_FIFO failed, errno=%d\n", error);
        return false;
    }
    sched_param parameter{};
    parameter.sched_priority = realtimePriority(priority, sched_get_priority_min(SCHED_FIFO),
                                                sched_get_priority_max(SCHED_FIFO));
    error = pthread_attr_setschedparam(&mAttributes, &parameter);
    if (error != 0) {
        ORBEL_LOG_ERROR(
            "pthread attr pthread_attr_setschedparam(sched priority=%d) failed, errno=%d\n",
            parameter.sched_priority, error);
    }
    return error == 0;
}

bool ThreadAttributes::destroy() {
    mInitialised = false;
    const int error = pthread_attr_destroy(&mAttributes);
    if (error != 0) {
        ORBEL_LOG_ERROR("pthread attr destroy failed, errno=%d\n", error);
    }
    return error == 0;
}

}  // namespace Vantel::Orbel
