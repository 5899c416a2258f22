#include "memory/cache/Stock.h"

#include <sched.h>

#include <algorithm>
#include <cstring>

#include "memory/cache/SystemMemoryAccounting.h"

namespace Vantel::Memory {

class Stock::TryGuard {
public:
    explicit TryGuard(std::atomic<bool>& busy)
        : mBusy(busy),
          mEntered(!busy.load(std::memory_order_relaxed) &&
                   !busy.exchange(true, std::memory_order_seq_cst)) {}
    TryGuard(const TryGuard&) = delete;
    TryGuard& operator=(const TryGuard&) = delete;
    ~TryGuard() {
        if (mEntered) {
            mBusy.store(false, std::memory_order_release);
        }
    }
    bool entered() const { return mEntered; }

private:
    std::atomic<bool>& mBusy;
    const bool mEntered;
};

size_t Stock::take(size_t index, size_t count, void** objects) {
    if (!has(index)) {
        return 0;
    }
    const TryGuard guard(mBusy);
    if (!guard.entered()) {
        return 0;
    }
    const uint32_t present = mCounts[index].load(std::memory_order_relaxed);
    const auto taken = static_cast<uint32_t>(std::min<size_t>(count, present));
    if (taken == 1) {
        *objects = place(index)[present - 1];
    } else {
        std::memcpy(objects, place(index) + present - taken, taken * sizeof(void*));
    }
    if (!isSmall(index)) {
        mLargeBytesHeld -= taken * SizeClass::size(index);
    }
    mCounts[index].store(present - taken, std::memory_order_relaxed);
    return taken;
}

bool Stock::fits(size_t index, uint32_t present, size_t count) const {
    return present + count <= kBegins[index + 1] - kBegins[index] &&
           (isSmall(index) || mLargeBytesHeld + count * SizeClass::size(index) <= kLargeBytes);
}

bool Stock::put(size_t index, void* const* objects, size_t count, std::atomic<bool>& stocked) {
    const TryGuard guard(mBusy);
    const uint32_t present = mCounts[index].load(std::memory_order_relaxed);
    if (!guard.entered() || !fits(index, present, count)) {
        return false;
    }
    if (!stocked.load(std::memory_order_seq_cst)) {
        stocked.store(true, std::memory_order_seq_cst);
    }
    if (count == 1) {
        place(index)[present] = *objects;
    } else {
        std::memcpy(place(index) + present, objects, count * sizeof(void*));
    }
    if (!isSmall(index)) {
        mLargeBytesHeld += count * SizeClass::size(index);
    }
    mCounts[index].store(present + static_cast<uint32_t>(count), std::memory_order_relaxed);
    return true;
}

Stock* Stocks::mine(bool make) {
    const auto number = static_cast<size_t>(std::max(sched_getcpu(), 0)) % kMax;
    Stock* stock = mStocks[number].load(std::memory_order_acquire);
    return stock != nullptr || !make ? stock : this->make(number);
}

Stock* Stocks::make(size_t number) {
    constexpr size_t kPages = (sizeof(Stock) + kPageSize - 1) >> kPageShift;
    // Not constructed: the system's zero pages are the empty stock, and stay untouched.
    auto* made = static_cast<Stock*>(mapPages(kPages));
    if (made == nullptr) {
        return nullptr;
    }
    Stock* known = nullptr;
    if (mStocks[number].compare_exchange_strong(known, made)) {
        size_t end = mEnd.load();
        while (end <= number && !mEnd.compare_exchange_weak(end, number + 1)) {
        }
        return made;
    }
    unmapPages(made, kPages);  // another thread was first
    return known;
}

}  // namespace Vantel::Memory
