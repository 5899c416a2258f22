#pragma once

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A slot that holds one pointer for each thread, null at first. What a thread has left in it when
/// it ends is not freed.
///
/// Threads: all methods from any thread; each sees its own value.
class ORBEL_API CThreadSpecific {
public:
    CThreadSpecific();
    CThreadSpecific(const CThreadSpecific&) = delete;
    CThreadSpecific& operator=(const CThreadSpecific&) = delete;
    ~CThreadSpecific();

    /// False if the process has no slot left; then nothing can be stored.
    bool valid() const;

    /// Not owned. False if it could not be stored.
    bool setValue(const void* value);

    /// False, with `*value` as it was, for a null argument or an invalid slot.
    bool getValue(void** value) const;

private:
    class ORBEL_LOCAL Internal;

    Internal* mInternal;
};

static_assert(sizeof(CThreadSpecific) == sizeof(void*));

}  // namespace Vantel::Orbel
