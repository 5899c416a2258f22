#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "Vantel/Orbel/CTime.h"

namespace Vantel::Orbel {

/// The stored local time that stamps log lines, read again when it is 0.4 seconds old or the clock
/// was set.
///
/// Threads: all methods from any thread. Nobody waits: who finds another thread storing takes a
/// reading of its own and stores nothing.
class PrintClock {
public:
    static PrintClock& instance();

    CTime now();

    /// The clock was set: what is stored counts no more.
    void clockChanged() { mChanged.store(true, std::memory_order_release); }

private:
    using Words = std::array<uint64_t, sizeof(SystemTime) / sizeof(uint64_t)>;

    bool load(uint64_t nowUs, CTime& time) const;
    CTime refresh(uint64_t nowUs);

    // Odd while a thread stores, 0 before the first store. Each word is stored with release behind
    // the odd value, and loaded with acquire before the second look at mSequence: a reader that
    // saw any word of a newer store sees the sequence changed. No fence, as the thread sanitizer
    // knows none.
    std::atomic<uint64_t> mSequence{0};
    std::array<std::atomic<uint64_t>, std::tuple_size_v<Words>> mWords{};
    std::atomic<uint64_t> mRefreshedUs{0};
    std::atomic<bool> mChanged{false};
};

}  // namespace Vantel::Orbel
