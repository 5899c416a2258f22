#pragma once

#include <memory>

#include "Vantel/Export.h"

namespace Vantel::Memory {

/// The latest value of something, handed from one writer to any number of reading processes
/// through shared memory. No queue: who looks gets the newest sample, whole, and what was
/// overwritten in between is gone. The writer never waits for a reader, and neither put() nor
/// get() makes a system call or takes a lock once attached.
///
/// Leaves on the machine: "/dev/shm/shmTriple_<name>" until destroy(), and for good the empty file
/// "/tmp/shmTriple_<name>.lock".
///
/// Threads: a handle belongs to one thread at a time. At most one handle of all processes may
/// put(), which nobody checks.
class ORBEL_API CShmTripleBuffer {
public:
    CShmTripleBuffer();
    CShmTripleBuffer(const CShmTripleBuffer&) = delete;
    CShmTripleBuffer& operator=(const CShmTripleBuffer&) = delete;
    /// As close().
    virtual ~CShmTripleBuffer();

    /// Joins the buffer `name` (cut to 52 bytes, no slash) as its writer, with its last sample, or
    /// makes it, for samples of up to `dataSize` bytes (1 or more; up to a multiple of 8 are
    /// accepted). One that exists with another size is made anew, and its readers move over at
    /// their next get(). False, with a line in the log, if it cannot be had.
    bool create(const char* name, unsigned int dataSize);

    /// Joins the buffer `name` as a reader; tries for a second if there is none. With `onlyNew`
    /// each sample is returned once, otherwise until there is a newer one. On a handle that is
    /// attached already only says whether its buffer is in order.
    bool open(const char* name, bool onlyNew);

    /// Leaves the buffer, which stays. Always true. A put() or get() after it attaches again.
    bool close();

    /// Removes the buffer; readers let go of it at their next get(). False if this handle never
    /// had one or it cannot be removed.
    bool destroy();

    /// Publishes `size` bytes. 0: done; -1: null, no size, or larger than a sample may be; -4: not
    /// attached.
    int put(const void* data, unsigned int size);

    /// Copies the newest sample out and returns its size in bytes, also in `*outSize`, with its
    /// number (1 for the first ever put) in `*outSeq`; both may be null.
    ///  0: nothing new, or the writer came in between: ask again;
    /// -1: null or no size; -3: `size` is too small, `*outSize` says what is needed; -4: not
    /// attached.
    ///
    /// Without `onlyNew`, and before the first put(), it returns `size` with nothing copied and the
    /// outputs untouched: ask latestSeq() first, or set `*outSeq` to 0 and look at that.
    int get(void* buffer, unsigned int size, unsigned int* outSize, unsigned long* outSeq);

    /// The number of the newest sample; 0 if there is none, or not attached.
    unsigned long latestSeq() const;

private:
    class ORBEL_LOCAL Internal;
    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Memory
