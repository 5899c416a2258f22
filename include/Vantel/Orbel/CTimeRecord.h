#pragma once

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// Measures stretches of code: take samples on the way, print what lies between them at the end.
///
/// Threads: one object belongs to one thread at a time.
class ORBEL_API CTimeRecord {
public:
    /// `name` (null counts as empty) is copied. Room for `capacity` samples is made here; more of
    /// them are kept all the same, but cost an allocation.
    CTimeRecord(const char* name, int capacity);
    CTimeRecord(const CTimeRecord&) = delete;
    CTimeRecord& operator=(const CTimeRecord&) = delete;
    ~CTimeRecord();

    /// Drops all samples.
    void reset();

    /// Stores the time. `label` is not copied: it must live until stat() or reset().
    void sample(const char* label);

    /// Takes a last sample, without a label, and prints a line on standard output for each pair of
    /// neighbours, in microseconds; nothing if the whole took less than `minUs` microseconds and
    /// that is not 0. The samples stay.
    void stat(unsigned minUs);

private:
    class ORBEL_LOCAL Internal;

    Internal* mInternal;
};

}  // namespace Vantel::Orbel
