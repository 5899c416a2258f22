#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "memory/cache/SizeClass.h"

namespace Vantel::Memory {

/// Objects that threads gave back on one processor and the next there may have, moved as they come:
/// no span is looked at. For their spans they are still out.
///
/// The lock is only ever tried. Whoever finds it taken does without the stock: no thread waits for
/// another that was interrupted here, and a real-time thread never for a lesser one.
///
/// Threads: any. Memory of zeroes is an empty stock.
class alignas(64) Stock {
    /// Where the room of each class begins, and behind the last class the end. What threads cache
    /// moves in batches; there is room for the live blocks of a thread or two, or they overflow to
    /// spans, another processor takes their neighbours, and both write to the same lines. Of the
    /// rest there are a few objects, which pin few pages.
    static constexpr auto kBegins = [] {
        std::array<uint32_t, SizeClass::kFreeLists + 1> begins{};
        for (size_t i = 0; i < SizeClass::kFreeLists; ++i) {
            begins[i + 1] = begins[i] + (i < 16 ? 4096 : i < SizeClass::kThreadLists ? 2048 : 8);
        }
        return begins;
    }();
    static constexpr uint64_t kLargeBytes = 128 * 1024;  // in all objects that threads don't cache

public:
    /// Takes up to `count` objects of a class; how many, 0 also if the stock is busy.
    size_t take(size_t index, size_t count, void** objects);

    /// Puts `count` objects in, and sets `stocked` if it isn't; false if they do not fit or the
    /// stock is busy.
    bool put(size_t index, void* const* objects, size_t count, std::atomic<bool>& stocked);

    /// Somebody is at it. Whoever clears `stocked` and then finds the stock not busy sees all that
    /// was put before, and whoever puts later sets it again: one of them comes second in the total
    /// order of both words.
    bool busy() const { return mBusy.load(std::memory_order_seq_cst); }

    /// Whether the class seems to have objects.
    bool has(size_t index) const { return mCounts[index].load(std::memory_order_relaxed) > 0; }

private:
    class TryGuard;

    static bool isSmall(size_t index) { return index < SizeClass::kThreadLists; }
    bool fits(size_t index, uint32_t present, size_t count) const;
    void** place(size_t index) { return mObjects + kBegins[index]; }

    std::atomic<bool> mBusy{false};
    uint64_t mLargeBytesHeld = 0;
    std::atomic<uint32_t> mCounts[SizeClass::kFreeLists] = {};  // written under the lock
    void* mObjects[kBegins.back()];
};

/// The stocks of all processors, each made when it is first put to.
class Stocks {
public:
    /// The stock of the processor that this thread runs on; null if there is none yet, or with
    /// `make`, if there is no memory.
    Stock* mine(bool make);

    /// Calls `visit(Stock&)` for each stock until it returns true; whether it did. Sequentially
    /// consistent, as is the making: see Stock::busy().
    template <class Visit>
    bool forEach(Visit&& visit) {
        const size_t end = mEnd.load();
        for (size_t i = 0; i < end; ++i) {
            Stock* stock = mStocks[i].load();
            if (stock != nullptr && visit(*stock)) {
                return true;
            }
        }
        return false;
    }

private:
    static constexpr size_t kMax = 64;  // processors beyond share with those before

    Stock* make(size_t number);

    std::atomic<Stock*> mStocks[kMax] = {};
    std::atomic<size_t> mEnd{0};  // behind the last one that there is
};

}  // namespace Vantel::Memory
