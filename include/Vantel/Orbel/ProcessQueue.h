#pragma once

#include <memory>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A System V message queue: messages of 1 to 1023 bytes, each with a type, between processes that
/// agree on a key.
///
/// Threads: any; the kernel orders the messages.
class ORBEL_API ProcessQueue {
public:
    /// Makes the queue of `key` (its lower 32 bits), or joins it. Failure ends the program
    /// (assertion).
    explicit ProcessQueue(unsigned long key);
    ProcessQueue(const ProcessQueue&) = delete;
    ProcessQueue& operator=(const ProcessQueue&) = delete;
    /// Removes the queue for everybody, with what is in it, also under a process that uses it.
    virtual ~ProcessQueue();

    /// Sends `size` (1 to 1023, otherwise false) bytes as a message of `type`, which must be above
    /// 0. A `timeoutUs` of 0 or less waits for room as long as it takes; otherwise tries every 10
    /// milliseconds, counting 10000 for each, whatever it really took. False, with a line in the
    /// log, on failure or when the time is up.
    bool send(int type, const char* data, int size, int timeoutUs);

    /// Takes the next message of `type` (0: of any; below: of the lowest up to -`type`) into
    /// `data`, which holds `size` (1 to 1023) bytes; a longer message stays and is an error. Its
    /// size, or -1. `timeoutUs` as in send().
    int recv(int type, char* data, int size, int timeoutUs);

private:
    class ORBEL_LOCAL Internal;
    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Orbel
