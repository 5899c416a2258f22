#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Object {

/// An object that is shared by a count of its references. It is born with none: who makes it takes
/// the first one.
///
/// Threads: addRef() and release() from any thread, while the caller's reference or another one
/// that cannot go meanwhile keeps the object alive.
class ORBEL_API IObject {
public:
    IObject();
    IObject(const IObject&) = delete;
    IObject& operator=(const IObject&) = delete;
    virtual ~IObject();

    /// Called by the release() that gives the last reference back; most classes delete themselves.
    virtual void destroy() = 0;

    /// Takes a reference; how many there are now.
    virtual uint32_t addRef();

    /// Gives a reference back; how many are left. With 0 the object may be gone.
    virtual uint32_t release();

private:
    struct ORBEL_LOCAL Internal;

    Internal* mInternal;
};

}  // namespace Vantel::Object
