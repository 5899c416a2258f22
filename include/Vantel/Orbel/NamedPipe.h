#pragma once

#include <memory>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A FIFO in the file system with access that never blocks. It stays there after the object.
///
/// Threads: no lock. open() and setPipeSize() from one at a time; reads and writes from any, atomic
/// as the kernel makes them: writes of up to 4096 bytes (PIPE_BUF) are not interleaved.
class ORBEL_API NamedPipe {
public:
    /// Of the path `name`; nothing is touched yet. Null or empty ends the program (assertion).
    explicit NamedPipe(const char* name);
    NamedPipe(const NamedPipe&) = delete;
    NamedPipe& operator=(const NamedPipe&) = delete;
    /// Closes the descriptor, except number 0, which counts as not open.
    virtual ~NamedPipe();

    /// Makes the FIFO if it is missing and opens it: `readable` for both directions, otherwise for
    /// writing, which fails as long as nobody has it open for reading. Then sets the pipe's size,
    /// as far as that works. True at once, without all this, if it is open. False, with a line in
    /// the log or on standard output, on failure.
    bool open(bool readable, unsigned int pipeSize);

    /// How many bytes were read, up to `size`; -1 if there are none, on failure or when closed.
    int read(void* buffer, unsigned int size);

    /// How many bytes were written; -1 on failure or when closed. If the pipe stays full for 11
    /// attempts, the data is dropped and `size` returned as if it had been written: a full pipe
    /// neither stalls nor fails the writer. A pipe without a reader raises no SIGPIPE.
    int write(const void* data, unsigned int size);

    /// -1 when closed. It stays the object's.
    int fd() const;

    /// Capacity in bytes; -1 when closed.
    int getPipeSize();
    /// Asks for at least `size` bytes (the kernel rounds up to pages). 0 or -1.
    int setPipeSize(unsigned int size);
    /// Bytes that wait to be read; -1 when closed or on failure.
    int getReadableSize();

private:
    class ORBEL_LOCAL Internal;
    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Orbel
