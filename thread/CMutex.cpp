#include "Vantel/Orbel/CMutex.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/base/Assert.h"
#include "thread/LeaveFailed.h"

namespace Vantel::Orbel {

CMutex::CMutex() : mInternal(new pthread_mutex_t) {
    const int ret = pthread_mutex_init(mInternal, nullptr);
    ORBEL_ASSERT(ret == 0);
}

CMutex::~CMutex() {
    const int ret = pthread_mutex_destroy(mInternal);
    ORBEL_ASSERT(ret == 0);
    delete mInternal;
}

bool CMutex::enterFailed() {
    // On standard output: the logger's own lock may be the one that failed.
    std::printf("enter mutex lock failed for :%s\n", std::strerror(errno));
    return false;
}

bool CMutex::leaveFailed() {
    const bool known = isKnownLeaveError();
    ORBEL_ASSERT(!known);
    return true;
}

}  // namespace Vantel::Orbel
