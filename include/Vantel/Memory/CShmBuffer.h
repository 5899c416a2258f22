#pragma once

#include <memory>

#include "Vantel/Export.h"

namespace Vantel::Memory {

/// A ring of records in shared memory, each up to a fixed size: any process may put, and each
/// reading process (up to 16) has a position of its own and sees every record, copied out. Needs
/// neither domain nor event loop. Meant for small data, where a copy is cheaper than a handshake.
///
/// Leaves on the machine: "/dev/shm/shmBuf_<name>" until destroy(), and for good the empty files
/// "/tmp/shmBuf_<name>.lock" and "/tmp/shmBufFifo_<name>_<slot>".
///
/// Threads: put() from several at once through one handle; everything else from one at a time, and
/// close(), destroy(), create() and the destructor only when nobody is in put(). All handles of one
/// process that read a ring share one position and one descriptor's signals; closing one of them
/// takes the position from all.
class ORBEL_API CShmBuffer {
public:
    CShmBuffer();
    CShmBuffer(const CShmBuffer&) = delete;
    CShmBuffer& operator=(const CShmBuffer&) = delete;
    /// As close().
    virtual ~CShmBuffer();

    /// Joins the ring `name` (cut to 63 bytes, no slash) as a writer, with its content, or makes
    /// it: `nodeCount` (2 or more) records of up to `dataSize` bytes (1 or more, rounded up to a
    /// multiple of 8). A ring that exists with other sizes is made anew, and its readers move over
    /// at their next get(). A reader with at least `sigThreshold` unread records is signalled by
    /// put() (0: always; who creates or joins last decides). The ring that this handle has is left
    /// first. False, with a line in the log, if the ring cannot be had; false for null as well.
    ///
    /// Writers that hold the old ring are not told: they go on writing into what nobody reads.
    bool create(const char* name, unsigned int dataSize, unsigned int nodeCount,
                unsigned int sigThreshold);

    /// Joins the ring `name` as a reader, at its present end: what was put before is never seen.
    /// Tries for a second if there is none. True at once if this handle has a ring already.
    bool open(const char* name);

    /// Leaves the ring, which stays. False if the memory could not be unmapped. A get() after it
    /// opens the ring again.
    bool close();

    /// Removes the ring; its readers let go of it at their next get(). False if this handle has
    /// none or it cannot be removed.
    bool destroy();

    /// Appends a record of `size` bytes. While the ring is full, that is, the slowest reader has
    /// all but one of the nodes unread (or without a reader, all but one have ever been written),
    /// tries again every millisecond for `timeoutMs`.
    /// 0: done; -1: null, no size, more than a record holds, or no ring; -2: full.
    ///
    /// A writer that comes round to a node in which a living one is still writing waits for it, at
    /// most 3 seconds.
    int put(void* data, unsigned int size, unsigned long timeoutMs);

    /// Copies the next record out. Its size in bytes, also in `*outSize` (may be null); 0: nothing
    /// new; -1: null, no size, or this handle is no reader; -3: `size` is too small, `*outSize`
    /// says what is needed and the record stays; -4: no ring.
    ///
    /// A record whose writer died in the middle is skipped 3 seconds after it was begun. After a
    /// ring was made anew the handle moves over to it: ask getEventFd() again and call
    /// enableEvent(true) again.
    int get(void* buffer, unsigned int size, unsigned int* outSize);

    /// The descriptor to poll for readability, for use with enableEvent(true) and readEvent(); it
    /// stays the handle's. -1: no FIFO could be had and the reader has to poll get(). Registers the
    /// handle as a reader if it is none. The destruction or renewal of the ring does not make it
    /// readable: sleep with a time limit.
    int getEventFd();

    /// Says whether writers shall signal this reader. False if this handle is no reader.
    bool enableEvent(bool enable);

    /// Takes up to `count` (cut to 1..1024) signals off the descriptor; how many, 0 for none, -1 on
    /// failure or without a descriptor. Do this before get(), then get() until 0: what is put after
    /// the last get() signals again.
    int readEvent(int count);

    /// With true, put() never reports full: slow readers lose the oldest records.
    void setOverwrite(bool overwrite);

private:
    class ORBEL_LOCAL Internal;
    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Memory
