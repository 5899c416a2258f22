#pragma once

#include "Vantel/Export.h"
#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/TDelegate.h"

namespace Vantel::Orbel {

/// A CThread whose body is a delegate, and whose name the kernel knows, too (15 characters of it).
class ORBEL_API CThreadLite : public CThread {
public:
    /// The body; gets the thread it runs in.
    using Proc = TDelegate<void, CThreadLite&>;

    /// `proc` is called once for each start and must watch looping(); what it is bound to outlives
    /// the thread. The rest as in CThread.
    CThreadLite(Proc proc, const char* name, int priority, int policy, int stackSize);
    /// Stops the thread if it runs and waits for its end.
    ~CThreadLite() override;

protected:
    void threadProc() override;

private:
    Proc* mInternal;
};

}  // namespace Vantel::Orbel
