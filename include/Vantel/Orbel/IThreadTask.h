#pragma once

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A piece of work for an IThreadPool.
class ORBEL_API IThreadTask {
public:
    virtual ~IThreadTask() = default;

    /// Called once, in a thread of the pool; the pool deletes the task afterwards.
    virtual void run() = 0;
};

}  // namespace Vantel::Orbel
