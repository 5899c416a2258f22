#pragma once

#include "Vantel/Export.h"
#include "Vantel/Orbel/CMutex.h"

namespace Vantel::Orbel {

/// A mutex with the operations of a condition, which do nothing. It holds no condition variable
/// and is not meant to: its users only want the names. CSemaphore is what really waits.
class ORBEL_API CCondMutex : public CMutex {
public:
    CCondMutex();
    CCondMutex(const CCondMutex&) = delete;
    CCondMutex& operator=(const CCondMutex&) = delete;
    ~CCondMutex();

    /// Returns at once, true; nobody needs to notify.
    bool wait();
    /// Nothing happens; true.
    bool notify();
    /// Nothing happens; true.
    bool broadcast();

private:
    class ORBEL_LOCAL Internal;

    Internal* mInternal;
};

static_assert(sizeof(CCondMutex) == 2 * sizeof(void*));

}  // namespace Vantel::Orbel
