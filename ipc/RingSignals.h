#pragma once

#include <cstdint>
#include <mutex>

#include "frame/base/UniqueFd.h"
#include "ipc/RingLayout.h"

namespace Vantel::Memory {

/// One handle's write ends towards the readers of its ring: one byte through a reader's FIFO wakes
/// it.
///
/// Threads: any. Several may put through one handle, and the mutex keeps one from closing the
/// descriptor that another writes to. No other lock is taken within, and none is taken where no
/// reader is to be signalled.
class RingSignals {
public:
    /// Wakes the reader in slot `index` of the ring `name`. 0: done, or left to a writer that is at
    /// it; -1: the reader's FIFO can't be had or written, and is tried anew later.
    int signal(const char* name, uint32_t index, ShmReaderSlot& slot);

    void closeAll();

    /// Makes the FIFO if it is missing, and opens its reading or writing end. Invalid on failure,
    /// with a line in the log.
    static Orbel::UniqueFd openFifo(const char* name, uint32_t index, bool reader);

private:
    bool openWriteEnd(const char* name, uint32_t index);
    bool writeByte(uint32_t index);
    bool anyUnread(uint32_t index) const;

    std::mutex mMutex;
    Orbel::UniqueFd mFds[kRingReaders];
    uint64_t mLastTry[kRingReaders] = {};  // seconds; 0: none yet
};

}  // namespace Vantel::Memory
