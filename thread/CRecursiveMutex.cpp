#include "Vantel/Orbel/CRecursiveMutex.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/base/Require.h"
#include "thread/LeaveFailed.h"

namespace Vantel::Orbel {

CRecursiveMutex::CRecursiveMutex() : mInternal(new pthread_mutex_t) {
    pthread_mutexattr_t attribute;
    ORBEL_REQUIRE(pthread_mutexattr_init(&attribute) == 0,
                  "setConfig pthread mutex attribute failed\n");
    ORBEL_REQUIRE(pthread_mutexattr_settype(&attribute, PTHREAD_MUTEX_RECURSIVE) == 0,
                  "set pthread mutex attribute type failed\n");
    ORBEL_REQUIRE(pthread_mutex_init(mInternal, &attribute) == 0,
                  "setConfig pthread mutex failed\n");
    pthread_mutexattr_destroy(&attribute);
}

CRecursiveMutex::~CRecursiveMutex() {
    ORBEL_REQUIRE(pthread_mutex_destroy(mInternal) == 0, "destroy pthread mutex failed\n");
    delete mInternal;
}

bool CRecursiveMutex::enterFailed() {
    std::printf("enter recursive mutex lock failed for :%s\n", std::strerror(errno));
    return false;
}

bool CRecursiveMutex::leaveFailed() {
    const bool known = isKnownLeaveError();
    ORBEL_ASSERT(!known);
    return true;
}

}  // namespace Vantel::Orbel
