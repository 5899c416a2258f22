#include "Vantel/Orbel/MPMCIDXQueue.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "frame/base/Assert.h"
#include "thread/BackOff.h"

namespace Vantel::Orbel {

namespace {

constexpr size_t kCacheLine = 64;

/// `turn` says who may use the cell next: 2 * lap the producer of that lap, 2 * lap + 1 its
/// consumer. It is the publication of `value`: stored (release) after it, read (acquire) before it.
struct alignas(kCacheLine) Cell {
    std::atomic<unsigned long> turn{0};
    alignas(kCacheLine) int value = -1;
};
static_assert(sizeof(Cell) == 2 * kCacheLine);

using Clock = std::chrono::steady_clock;

/// Longer waits are cut to this, which nobody sits out: the deadline must not overflow.
constexpr std::chrono::hours kLongestWait(24 * 365);

/// The pauses of a spinning wait: none at first, then short, then long ones.
void pauseAfter(long passes) {
    const int pauses = passes > 100 ? 100 : (passes > 20 ? 10 : 0);
    for (int i = 0; i < pauses; ++i) {
        spinPause();
    }
}

}  // namespace

class alignas(kCacheLine) MPMCIDXQueue::Internal {
public:
    Internal(int size, bool blocking)
        : mBlocking(blocking),
          mCapacity(size),
          mLapShift(std::countr_zero(static_cast<unsigned int>(size))),
          mCells(static_cast<size_t>(size) + 1) {}

    bool pushOnce(int value);
    bool popOnce(int& value);
    bool popUntil(int& value, std::chrono::microseconds timeout, long clockEvery);
    void stop();

    bool stopped() const { return mStopped.load(std::memory_order_relaxed); }
    bool hasValue() const {
        return mHead.load(std::memory_order_relaxed) > mTail.load(std::memory_order_relaxed);
    }
    int capacity() const { return mCapacity; }

private:
    Cell& cellAt(long position) { return mCells[static_cast<size_t>(position & (mCapacity - 1))]; }
    unsigned long freeTurn(long position) const {
        return static_cast<unsigned long>(position >> mLapShift) * 2;
    }
    void sleepUntil(Clock::time_point deadline);
    void spinUntil(Clock::time_point deadline, long clockEvery);

    const bool mBlocking;
    const int mCapacity;
    const int mLapShift;
    std::atomic<bool> mStopped{false};
    std::vector<Cell> mCells;  // one more than the ring uses
    // Relaxed throughout: a position only says which cell to look at, the cell's turn decides.
    alignas(kCacheLine) std::atomic<long> mHead{0};
    alignas(kCacheLine) std::atomic<long> mTail{0};
    alignas(kCacheLine) std::mutex mMutex;
    std::condition_variable mCondition;
};

/// One attempt: false only if the queue was full at a moment when the head did not move.
bool MPMCIDXQueue::Internal::pushOnce(int value) {
    long position = mHead.load(std::memory_order_relaxed);
    for (;;) {
        Cell& cell = cellAt(position);
        if (cell.turn.load(std::memory_order_acquire) != freeTurn(position)) {
            const long now = mHead.load(std::memory_order_relaxed);
            if (now == position) {
                return false;
            }
            position = now;
        } else if (mHead.compare_exchange_weak(position, position + 1, std::memory_order_relaxed)) {
            cell.value = value;
            cell.turn.store(freeTurn(position) + 1, std::memory_order_release);
            if (mBlocking) {
                mCondition.notify_one();  // without the mutex on purpose: a push never blocks
            }
            return true;
        }
    }
}

bool MPMCIDXQueue::Internal::popOnce(int& value) {
    long position = mTail.load(std::memory_order_relaxed);
    for (;;) {
        Cell& cell = cellAt(position);
        if (cell.turn.load(std::memory_order_acquire) != freeTurn(position) + 1) {
            const long now = mTail.load(std::memory_order_relaxed);
            if (now == position) {
                return false;
            }
            position = now;
        } else if (mTail.compare_exchange_weak(position, position + 1, std::memory_order_relaxed)) {
            value = cell.value;
            cell.turn.store(freeTurn(position) + 2, std::memory_order_release);
            return true;
        }
    }
}

bool MPMCIDXQueue::Internal::popUntil(int& value, std::chrono::microseconds timeout,
                                      long clockEvery) {
    if (stopped()) {
        return false;
    }
    if (popOnce(value)) {
        return true;
    }
    if (timeout.count() > 0) {
        const Clock::time_point deadline =
            Clock::now() + std::min<std::chrono::microseconds>(timeout, kLongestWait);
        if (mBlocking) {
            sleepUntil(deadline);
        } else {
            spinUntil(deadline, clockEvery);
        }
    }
    // Also after a stop: what arrived as the wait ended is not lost.
    return popOnce(value);
}

void MPMCIDXQueue::Internal::sleepUntil(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mMutex);
    while (!hasValue() && !stopped()) {
        if (mCondition.wait_until(lock, deadline) == std::cv_status::timeout) {
            return;
        }
    }
}

void MPMCIDXQueue::Internal::spinUntil(Clock::time_point deadline, long clockEvery) {
    for (long passes = 0; !hasValue() && !stopped(); ++passes) {
        if ((passes % clockEvery == 0 || passes > 200) && Clock::now() >= deadline) {
            return;
        }
        pauseAfter(passes);
    }
}

void MPMCIDXQueue::Internal::stop() {
    mStopped.store(true, std::memory_order_relaxed);
    // With the mutex: a consumer between its look and its sleep must not miss the last call.
    std::lock_guard<std::mutex> guard(mMutex);
    mCondition.notify_all();
}

MPMCIDXQueue::MPMCIDXQueue(int size, bool blocking) {
    ORBEL_ASSERT(size > 0 && (size & (size - 1)) == 0);
    mInternal = std::make_unique<Internal>(size, blocking);
}

MPMCIDXQueue::~MPMCIDXQueue() = default;

bool MPMCIDXQueue::push(int value) {
    while (!mInternal->stopped()) {
        if (mInternal->pushOnce(value)) {
            return true;
        }
    }
    return false;
}

bool MPMCIDXQueue::tryPush(int value, int retries) {
    for (; retries >= 0 && !mInternal->stopped(); --retries) {
        if (mInternal->pushOnce(value)) {
            return true;
        }
    }
    return false;
}

bool MPMCIDXQueue::tryPop(int& value, int retries) {
    for (; retries >= 0 && !mInternal->stopped(); --retries) {
        if (mInternal->popOnce(value)) {
            return true;
        }
    }
    return false;
}

bool MPMCIDXQueue::popWithTimeout(int& value, int timeoutMs) {
    return mInternal->popUntil(value, std::chrono::milliseconds(timeoutMs), 50);
}

bool MPMCIDXQueue::popWithUsTimeout(int& value, long timeoutUs) {
    return mInternal->popUntil(value, std::chrono::microseconds(timeoutUs), 10);
}

void MPMCIDXQueue::stop() {
    mInternal->stop();
}

bool MPMCIDXQueue::empty() const {
    return !mInternal->hasValue();
}

bool MPMCIDXQueue::isStopped() const {
    return mInternal->stopped();
}

int MPMCIDXQueue::capacity() const {
    return mInternal->capacity();
}

}  // namespace Vantel::Orbel
