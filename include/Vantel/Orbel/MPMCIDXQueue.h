#pragma once

#include <memory>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// Bounded queue of `int` values (indices of buffers in a pool, say) between the threads of one
/// process. A ring of cells, each with a turn counter: producers and consumers meet only on the
/// cell that they touch. Made either spinning, or blocking, where a consumer sleeps on a condition
/// variable in the timed pops.
///
/// Threads: all methods, from any thread at once. Not lock-free in the strict sense: a producer
/// that is suspended between winning a position and filling it holds up that position's consumer.
class ORBEL_API MPMCIDXQueue {
public:
    /// `size` is the number of values that fit: a positive power of two (asserted).
    MPMCIDXQueue(int size, bool blocking);
    ~MPMCIDXQueue();
    MPMCIDXQueue(const MPMCIDXQueue&) = delete;
    MPMCIDXQueue& operator=(const MPMCIDXQueue&) = delete;

    /// Spins at full speed until there is room. False once stopped.
    bool push(int value);

    /// Makes up to `retries` + 1 attempts. False if full, stopped, or `retries` is negative.
    bool tryPush(int value, int retries);
    /// The same for taking; `value` is left alone on failure.
    bool tryPop(int& value, int retries);

    ///@{
    /// Waits up to `timeoutMs` milliseconds (`timeoutUs` microseconds) for a value; 0 or less makes
    /// two attempts without a wait. False once stopped, but a value that is there when a running
    /// wait is stopped is still taken. In blocking mode a push that falls between a consumer's look
    /// and its sleep does not wake it: it then sleeps until the time is up.
    bool popWithTimeout(int& value, int timeoutMs);
    bool popWithUsTimeout(int& value, long timeoutUs);
    ///@}

    /// Refuses all further pushes and pops and wakes all waiters. There is no way back.
    void stop();

    /// A hint: false as soon as a producer has won its position.
    bool empty() const;
    /// stop() was called.
    bool isStopped() const;
    /// The `size` of the constructor.
    int capacity() const;

private:
    class ORBEL_LOCAL Internal;
    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Orbel
