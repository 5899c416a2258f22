#include "Vantel/Orbel/CSpin.h"

#include "frame/base/Require.h"

namespace Vantel::Orbel {

CSpin::CSpin() : mInternal(new pthread_spinlock_t) {
    ORBEL_REQUIRE(pthread_spin_init(mInternal, PTHREAD_PROCESS_PRIVATE) == 0,
                  "setConfig pthread spin failed\n");
}

CSpin::~CSpin() {
    ORBEL_REQUIRE(pthread_spin_destroy(mInternal) == 0, "destroy pthread spin failed\n");
    // Volatile in C++; the cast only lets delete have it.
    delete const_cast<int*>(mInternal);
}

}  // namespace Vantel::Orbel
