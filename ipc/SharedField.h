#pragma once

#include <atomic>

namespace Vantel::Orbel {

/// One word of a segment that several processes touch at once; there is no way round its
/// operations. They are the compiler's builtins and not std::atomic_ref, which wants aligned
/// objects: block headers stand at odd addresses where a pool's extraSize is odd.
/// Sequentially consistent unless told otherwise.
template <class T>
struct SharedField {
    T load(std::memory_order order = std::memory_order_seq_cst) const {
        T value;
        __atomic_load(&raw, &value, static_cast<int>(order));
        return value;
    }
    void store(T value, std::memory_order order = std::memory_order_seq_cst) {
        __atomic_store(&raw, &value, static_cast<int>(order));
    }

    /// All of these return the value before.
    T fetchAdd(T value) { return __atomic_fetch_add(&raw, value, __ATOMIC_SEQ_CST); }
    T fetchSub(T value) { return __atomic_fetch_sub(&raw, value, __ATOMIC_SEQ_CST); }
    T fetchAnd(T value) { return __atomic_fetch_and(&raw, value, __ATOMIC_SEQ_CST); }
    T fetchOr(T value) { return __atomic_fetch_or(&raw, value, __ATOMIC_SEQ_CST); }

    /// Strong; on failure `expected` takes the value found.
    bool compareExchange(T& expected, T desired) {
        return __atomic_compare_exchange(&raw, &expected, &desired, false, __ATOMIC_SEQ_CST,
                                         __ATOMIC_SEQ_CST);
    }

    /// Lowers a count by one unless it is 0; the value before. Only the caller that gets 1 was
    /// last.
    T lower() {
        T count = load();
        while (count != 0 && !compareExchange(count, count - 1)) {
        }
        return count;
    }

    /// Raises a count by one unless it is 0, which stays: false.
    bool raiseUnlessZero() {
        T count = load();
        while (count != 0 && !compareExchange(count, count + 1)) {
        }
        return count != 0;
    }

    T raw;
};

}  // namespace Vantel::Orbel
