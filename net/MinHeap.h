#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

namespace Vantel::Orbel {

/// One timer.
struct TimerNode {
    uint64_t expiry = 0;  ///< monotonic microseconds
    std::function<void()> callback;
    bool repeat = false;
    int64_t intervalMs = 0;
    uint64_t id = 0;
};

/// A binary min-heap of timers by expiry; equal expiries keep no order. Ids in it are unique.
/// A node rests in one slot for as long as it is in the heap; what moves is its key of 16 bytes,
/// and the slot knows the key's index. So a node is found by its id without a search, and a move
/// costs no hashing.
class MinHeap {
public:
    static constexpr size_t kNotFound = static_cast<size_t>(-1);

    MinHeap();
    /// Leave the source without nodes and without memory; it can be filled again.
    MinHeap(MinHeap&& other) noexcept;
    MinHeap& operator=(MinHeap&& other) noexcept;

    size_t size() const { return mSize; }
    size_t capacity() const { return mCapacity; }
    bool empty() const { return mSize == 0; }

    void push(const TimerNode& node);
    /// The earliest timer, or a default node if there is none.
    TimerNode pop();
    const TimerNode& top() const;
    /// Callbacks stay in their slots until they are overwritten or the heap dies.
    void clear();

    /// Where in the heap's array the timer stands, or kNotFound.
    size_t findTimerIndex(uint64_t id) const;
    /// False if the id is not there.
    bool removeTimer(uint64_t id);
    bool updateTimer(uint64_t id, const TimerNode& node);

    void heapifyUp(size_t index);
    void heapifyDown(size_t index);
    void swap(size_t left, size_t right);
    /// Doubles the array; 16 nodes at first.
    void expandCapacity();

private:
    struct Key {
        uint64_t expiry = 0;
        size_t slot = 0;
    };

    size_t takeSlot(uint64_t id);
    void place(size_t index, const Key& key);
    /// Restores the order after the expiry at `index` was `before` and has been changed.
    void heapify(size_t index, uint64_t before);

    std::unique_ptr<Key[]> mKeys;
    size_t mSize = 0;
    size_t mCapacity = 0;
    std::vector<TimerNode> mNodes;     // by slot
    std::vector<size_t> mIndexOfSlot;  // apart from the nodes: a sift writes one at each step
    std::vector<size_t> mFreeSlots;
    std::unordered_map<uint64_t, size_t> mSlotOfId;
};

}  // namespace Vantel::Orbel
