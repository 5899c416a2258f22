#include "net/MinHeap.h"

#include <algorithm>
#include <utility>

namespace Vantel::Orbel {

namespace {

constexpr size_t kFirstCapacity = 16;

}  // namespace

MinHeap::MinHeap() {
    expandCapacity();
}

MinHeap::MinHeap(MinHeap&& other) noexcept {
    *this = std::move(other);
}

MinHeap& MinHeap::operator=(MinHeap&& other) noexcept {
    if (this != &other) {
        mKeys = std::move(other.mKeys);
        mSize = std::exchange(other.mSize, 0);
        mCapacity = std::exchange(other.mCapacity, 0);
        mNodes = std::exchange(other.mNodes, {});
        mIndexOfSlot = std::exchange(other.mIndexOfSlot, {});
        mFreeSlots = std::exchange(other.mFreeSlots, {});
        mSlotOfId = std::exchange(other.mSlotOfId, {});
    }
    return *this;
}

void MinHeap::push(const TimerNode& node) {
    if (mSize == mCapacity) {
        expandCapacity();
    }
    const size_t slot = takeSlot(node.id);
    mNodes[slot] = node;
    place(mSize, Key{node.expiry, slot});
    heapifyUp(mSize++);
}

TimerNode MinHeap::pop() {
    if (mSize == 0) {
        return TimerNode{};
    }
    TimerNode earliest = top();
    removeTimer(earliest.id);
    return earliest;
}

const TimerNode& MinHeap::top() const {
    static const TimerNode none;
    return mSize == 0 ? none : mNodes[mKeys[0].slot];
}

void MinHeap::clear() {
    for (size_t index = 0; index < mSize; ++index) {
        mFreeSlots.push_back(mKeys[index].slot);
    }
    mSize = 0;
    mSlotOfId.clear();
}

size_t MinHeap::findTimerIndex(uint64_t id) const {
    const auto found = mSlotOfId.find(id);
    return found == mSlotOfId.end() ? kNotFound : mIndexOfSlot[found->second];
}

bool MinHeap::removeTimer(uint64_t id) {
    const auto found = mSlotOfId.find(id);
    if (found == mSlotOfId.end()) {
        return false;
    }
    const size_t index = mIndexOfSlot[found->second];
    mFreeSlots.push_back(found->second);
    mSlotOfId.erase(found);
    --mSize;
    if (index != mSize) {
        const uint64_t removedExpiry = mKeys[index].expiry;
        place(index, mKeys[mSize]);
        heapify(index, removedExpiry);
    }
    return true;
}

bool MinHeap::updateTimer(uint64_t id, const TimerNode& node) {
    const auto found = mSlotOfId.find(id);
    if (found == mSlotOfId.end()) {
        return false;
    }
    const size_t slot = found->second;
    if (node.id != id) {
        mSlotOfId.erase(found);
        mSlotOfId[node.id] = slot;
    }
    mNodes[slot] = node;
    const size_t index = mIndexOfSlot[slot];
    const uint64_t oldExpiry = std::exchange(mKeys[index].expiry, node.expiry);
    heapify(index, oldExpiry);
    return true;
}

void MinHeap::heapify(size_t index, uint64_t before) {
    if (mKeys[index].expiry < before) {
        heapifyUp(index);
    } else {
        heapifyDown(index);
    }
}

void MinHeap::heapifyUp(size_t index) {
    while (index != 0) {
        const size_t parent = (index - 1) / 2;
        if (mKeys[parent].expiry <= mKeys[index].expiry) {
            return;
        }
        swap(parent, index);
        index = parent;
    }
}

void MinHeap::heapifyDown(size_t index) {
    for (;;) {
        size_t smallest = index;
        for (size_t child = 2 * index + 1; child <= 2 * index + 2 && child < mSize; ++child) {
            if (mKeys[child].expiry < mKeys[smallest].expiry) {
                smallest = child;
            }
        }
        if (smallest == index) {
            return;
        }
        swap(smallest, index);
        index = smallest;
    }
}

void MinHeap::swap(size_t left, size_t right) {
    const Key moved = mKeys[left];
    place(left, mKeys[right]);
    place(right, moved);
}

void MinHeap::expandCapacity() {
    const size_t capacity = mCapacity == 0 ? kFirstCapacity : mCapacity * 2;
    auto keys = std::make_unique<Key[]>(capacity);
    std::copy_n(mKeys.get(), mSize, keys.get());
    mKeys = std::move(keys);
    mCapacity = capacity;
}

size_t MinHeap::takeSlot(uint64_t id) {
    size_t slot = mNodes.size();
    if (mFreeSlots.empty()) {
        mNodes.emplace_back();
        mIndexOfSlot.push_back(0);
    } else {
        slot = mFreeSlots.back();
        mFreeSlots.pop_back();
    }
    mSlotOfId[id] = slot;
    return slot;
}

void MinHeap::place(size_t index, const Key& key) {
    mKeys[index] = key;
    mIndexOfSlot[key.slot] = index;
}

}  // namespace Vantel::Orbel
