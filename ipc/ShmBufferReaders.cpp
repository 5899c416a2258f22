#include <algorithm>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "ipc/ProcessAlive.h"
#include "ipc/ShmBufferInternal.h"

namespace Vantel::Memory {

namespace {

constexpr uint64_t kTrustedMs = 1000;  // a reader seen this recently is alive without a question
constexpr uint32_t kFirstByte = 0xFF;

}  // namespace

bool CShmBuffer::Internal::registerReader() {
    if (!mapped()) {
        ORBEL_LOG_ERROR("shm not attached, cannot register reader\n");
        return false;
    }
    if (mSigIdx >= 0) {
        return true;
    }
    if (!claimSlot()) {
        ORBEL_LOG_ERROR("reader slots full (%d), cannot register\n",
                        static_cast<int>(kRingReaders));
        return false;
    }
    ShmReaderSlot& slot = ownSlot();
    slot.head.store(header()->tail.load());  // also when shared: its other handle jumps ahead
    slot.lastActive.store(Orbel::CTime::getCurrentMilliSecond());
    mEventFd = RingSignals::openFifo(mName, static_cast<uint32_t>(mSigIdx), true);
    if (!mEventFd.valid()) {
        ORBEL_LOG_WARN(" create fifo failed — running in poll mode\n");
    }
    return true;
}

/// Takes the slot that this process has already, or a free or dead one.
bool CShmBuffer::Internal::claimSlot() {
    ShmReaderSlot(&slots)[kRingReaders] = header()->readers;
    for (uint32_t i = 0; i < kRingReaders; ++i) {
        if (slots[i].pid.load() == mPid) {
            mSigIdx = static_cast<int>(i);
            return true;
        }
    }
    for (uint32_t i = 0; i < kRingReaders; ++i) {
        uint32_t found = slots[i].pid.load();
        if (found != 0 && Orbel::processAlive(found)) {
            continue;
        }
        if (slots[i].pid.compareExchange(found, mPid)) {
            slots[i].eventEnabled.store(0);  // perhaps left by the dead
            mSigIdx = static_cast<int>(i);
            return true;
        }
    }
    return false;
}

void CShmBuffer::Internal::unregisterReader() {
    if (mSigIdx < 0 || ownSlot().pid.load() != mPid) {
        return;
    }
    ShmReaderSlot& slot = ownSlot();
    slot.eventEnabled.store(0);
    slot.signalling.store(0);
    slot.skippedSignals.store(0);
    slot.lastActive.store(0);
    slot.head.store(header()->tail.load());
    uint32_t own = mPid;
    slot.pid.compareExchange(own, 0);  // last: the next one may take the slot from here on
}

bool CShmBuffer::Internal::readerAlive(const ShmReaderSlot& slot, uint32_t pid, uint64_t nowMs) {
    return nowMs - slot.lastActive.load(std::memory_order_relaxed) < kTrustedMs ||
           Orbel::processAlive(pid);
}

/// Frees the slot of a dead reader, unless somebody else has done so or has taken it over: then its
/// fields are a living reader's, and stay.
bool CShmBuffer::Internal::dropDeadReader(ShmReaderSlot& slot, uint32_t pid, uint64_t tail) {
    uint64_t head = slot.head.load();
    if (!slot.pid.compareExchange(pid, 0)) {
        return false;
    }
    slot.head.compareExchange(head, tail);
    return true;
}

/// The position of the slowest reader, at most `tail`.
uint64_t CShmBuffer::Internal::effectiveHead(uint64_t tail, uint64_t nowMs) {
    bool anyReader = false;
    uint64_t slowest = tail;
    for (ShmReaderSlot& slot : header()->readers) {
        const uint32_t pid = slot.pid.load(std::memory_order_acquire);
        if (pid == 0) {
            continue;
        }
        if (!readerAlive(slot, pid, nowMs)) {
            dropDeadReader(slot, pid, tail);
            continue;
        }
        anyReader = true;
        // Acquire pairs with the reader's swap: its copy is done before we write over the record.
        slowest = std::min(slowest, slot.head.load(std::memory_order_acquire));
    }
    if (anyReader) {
        return slowest;
    }
    return tail > mSize.nodeCount ? tail - mSize.nodeCount : 0;
}

void CShmBuffer::Internal::setSigParam(uint32_t threshold, uint32_t slots) {
    ShmBufferHeader& ring = *header();
    ring.sigThreshold.store(static_cast<int32_t>(threshold));
    ring.sigSlots.store(std::min(slots, kRingReaders));
    const uint64_t nowMs = Orbel::CTime::getCurrentMilliSecond();
    int registered = 0;
    for (uint32_t i = 0; i < kRingReaders; ++i) {
        ShmReaderSlot& slot = ring.readers[i];
        const uint32_t pid = slot.pid.load();
        if (pid == 0) {
            continue;
        }
        if (readerAlive(slot, pid, nowMs)) {
            ++registered;
            mSignals.signal(mName, i, slot);
        } else {
            dropDeadReader(slot, pid, ring.tail.load());
        }
    }
    ORBEL_LOG_INFO(" registered pids = %d\n", registered);
}

void CShmBuffer::Internal::notifyReaders() {
    ShmBufferHeader& ring = *header();
    uint64_t nowMs = 0;  // read for the first reader that wants signals
    for (uint32_t i = 0; i < kRingReaders; ++i) {
        ShmReaderSlot& slot = ring.readers[i];
        const uint32_t pid = slot.pid.load(std::memory_order_acquire);
        if (pid == 0 || (slot.eventEnabled.load() & kFirstByte) == 0) {
            continue;
        }
        if (nowMs == 0) {
            nowMs = Orbel::CTime::getCurrentMilliSecond();
        }
        const uint64_t tail = ring.tail.load();
        if (!readerAlive(slot, pid, nowMs)) {
            if (dropDeadReader(slot, pid, tail)) {
                slot.eventEnabled.store(0);
            }
            continue;
        }
        const uint64_t head = slot.head.load();
        const uint64_t backlog = tail > head ? tail - head : 0;
        const int32_t threshold = std::max(ring.sigThreshold.load(), 0);
        if (backlog >= static_cast<uint64_t>(threshold)) {
            mSignals.signal(mName, i, slot);
        }
    }
}

}  // namespace Vantel::Memory
