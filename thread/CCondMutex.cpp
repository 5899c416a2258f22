#include "Vantel/Orbel/CCondMutex.h"

namespace Vantel::Orbel {

class CCondMutex::Internal {};  // empty: there is no condition behind this class

CCondMutex::CCondMutex() : mInternal(new Internal) {}

CCondMutex::~CCondMutex() {
    delete mInternal;
}

// Inert on purpose, all three.

bool CCondMutex::wait() {
    return true;
}

bool CCondMutex::notify() {
    return true;
}

bool CCondMutex::broadcast() {
    return true;
}

}  // namespace Vantel::Orbel
