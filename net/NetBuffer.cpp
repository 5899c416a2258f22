#include "Vantel/Orbel/NetBuffer.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace Vantel::Orbel {

namespace {

constexpr size_t kMinimumGrowth = 4096;

size_t sum(size_t a, size_t b) {
    if (a > std::numeric_limits<size_t>::max() - b) {
        throw std::length_error("NetBuffer: size overflow");
    }
    return a + b;
}

}  // namespace

NetBuffer::NetBuffer(size_t size, size_t headroom)
    : mData(sum(size, headroom)),
      mHeadroom(headroom),
      mReadIndex(headroom),
      mWriteIndex(size + headroom) {}

const uint8_t* NetBuffer::headroomData(size_t count) const {
    return count > mReadIndex ? nullptr : mData.data() + (mReadIndex - count);
}

uint8_t* NetBuffer::headroomData(size_t count) {
    return count > mReadIndex ? nullptr : mData.data() + (mReadIndex - count);
}

uint8_t* NetBuffer::writableData() {
    return writableSize() == 0 ? nullptr : mData.data() + mWriteIndex;
}

void NetBuffer::append(const void* data, size_t length) {
    if (data == nullptr || length == 0) {
        return;
    }
    ensureWritable(length);
    std::memcpy(mData.data() + mWriteIndex, data, length);
    mWriteIndex += length;
}

void NetBuffer::hasWritten(size_t length) {
    const size_t end = sum(mWriteIndex, length);
    if (end > mData.size()) {
        grow(end);
    }
    mWriteIndex = end;
}

void NetBuffer::ensureWritable(size_t length) {
    if (writableSize() >= length) {
        return;
    }
    compact();
    if (writableSize() < length) {
        grow(sum(mWriteIndex, length));
    }
}

void NetBuffer::grow(size_t required) {
    size_t size = std::max(mData.size(), kMinimumGrowth);
    while (size < required) {
        size = size > std::numeric_limits<size_t>::max() / 2 ? required : size * 2;
    }
    mData.resize(size);
}

bool NetBuffer::prepend(const void* data, size_t length) {
    if (length == 0) {
        return true;
    }
    if (data == nullptr || !prepend(length)) {
        return false;
    }
    std::memcpy(mData.data() + mReadIndex, data, length);
    return true;
}

bool NetBuffer::prepend(size_t length) {
    if (length > mReadIndex) {
        return false;
    }
    mReadIndex -= length;
    return true;
}

void NetBuffer::reserveHeadroom(size_t length) {
    if (mReadIndex >= length) {
        mHeadroom = std::max(mHeadroom, length);
        return;
    }
    std::vector<uint8_t> moved(sum(length, size() + writableSize()));
    std::copy_n(mData.begin() + static_cast<ptrdiff_t>(mReadIndex), size(),
                moved.begin() + static_cast<ptrdiff_t>(length));
    mWriteIndex = length + size();
    mHeadroom = mReadIndex = length;  // also where it was larger: meant so
    mData = std::move(moved);
}

void NetBuffer::consume(size_t length) {
    mReadIndex += std::min(length, size());
    if (empty()) {
        clear();
    }
}

void NetBuffer::clear() {
    resetToHeadroom();
}

void NetBuffer::resetToHeadroom() {
    if (mData.size() < mHeadroom) {
        mData.resize(mHeadroom);
    }
    mReadIndex = mWriteIndex = mHeadroom;
}

void NetBuffer::compact() {
    if (mReadIndex <= mHeadroom) {
        return;
    }
    if (empty()) {
        resetToHeadroom();
        return;
    }
    const size_t length = size();
    std::memmove(mData.data() + mHeadroom, mData.data() + mReadIndex, length);
    mReadIndex = mHeadroom;
    mWriteIndex = mHeadroom + length;
}

void NetBuffer::reserve(size_t capacity) {
    if (mData.size() < capacity) {
        mData.resize(capacity);
    }
}

void NetBuffer::resize(size_t size, size_t headroom) {
    reserve(sum(size, headroom));
    mHeadroom = mReadIndex = headroom;
    mWriteIndex = headroom + size;
}

void NetBuffer::resize(size_t size) {
    resize(size, mHeadroom);
}

}  // namespace Vantel::Orbel
