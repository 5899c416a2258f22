#pragma once

#include <atomic>
#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A read-write lock for short sections: it spins, then yields, then sleeps 10 microseconds at a
/// time. Writers are not preferred, a steady stream of readers starves them. The lock stands in a
/// cache line of its own. Not recursive.
///
/// Threads: all methods from any thread, the leaving one by who entered.
class ORBEL_API RWSpinLock {
public:
    RWSpinLock();
    RWSpinLock(const RWSpinLock&) = delete;
    RWSpinLock& operator=(const RWSpinLock&) = delete;
    virtual ~RWSpinLock();

    /// Waits until no writer is inside.
    void enterReading();
    /// For who has entered; nobody checks.
    void leaveReading();

    /// Waits until nobody is inside.
    void enterWriting();
    /// For who has entered; nobody checks.
    void leaveWriting();

private:
    class ORBEL_LOCAL Internal;

    Internal* mInternal;
};

}  // namespace Vantel::Orbel
