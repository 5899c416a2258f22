#include "Vantel/Orbel/PrioMutex.h"

namespace Vantel::Orbel {

// Nothing is checked here, on purpose: where the system has no priority inheritance, the lock
// still works as far as it can.

PrioMutex::PrioMutex() : mInternal(new pthread_mutex_t) {
    pthread_mutexattr_t attribute;
    pthread_mutexattr_init(&attribute);
    pthread_mutexattr_setprotocol(&attribute, PTHREAD_PRIO_INHERIT);
    pthread_mutex_init(mInternal, &attribute);
    pthread_mutexattr_destroy(&attribute);
}

PrioMutex::~PrioMutex() {
    pthread_mutex_destroy(mInternal);
    delete mInternal;
}

}  // namespace Vantel::Orbel
