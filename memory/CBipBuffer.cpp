#include "Vantel/Memory/CBipBuffer.h"

#include <cstring>

#include "Vantel/Memory/IMemoryPool.h"

namespace Vantel::Memory {

/// Region A is [mReadPos, mEndPos), region B [0, mBSize): mBSize <= mReadPos <= mEndPos <=
/// mCapacity, and mBSize is 0 unless mUseB.
class CBipBuffer::Internal {
public:
    uint32_t tailGap() const { return static_cast<uint32_t>(mCapacity) - mEndPos; }
    uint32_t frontGap() const { return mReadPos - mBSize; }
    int unused() const { return static_cast<int>(mUseB ? frontGap() : tailGap()); }
    bool fits(int size) const { return size >= 0 && mData != nullptr && size <= unused(); }
    uint8_t* writePosition() const { return mData + (mUseB ? mBSize : mEndPos); }

    /// The writer goes to the larger gap, and never back by itself.
    void chooseRegion() { mUseB = mUseB || tailGap() < frontGap(); }
    void written(int size) {
        (mUseB ? mBSize : mEndPos) += static_cast<uint32_t>(size);
        chooseRegion();
    }
    void rewind() {
        mReadPos = mEndPos = mBSize = 0;
        mUseB = false;
    }

    int32_t mCapacity = 0;
    uint32_t mReadPos = 0;
    uint32_t mEndPos = 0;
    uint32_t mBSize = 0;
    bool mUseB = false;  // new data goes to region B
    uint8_t* mData = nullptr;
};

CBipBuffer::CBipBuffer() : mInternal(new Internal) {}

CBipBuffer::~CBipBuffer() {
    IMemoryPool::instance()->deallocate(mInternal->mData);
    delete mInternal;
}

bool CBipBuffer::initial(int size) {
    void* area = size < 0 ? nullptr : IMemoryPool::instance()->allocate(static_cast<size_t>(size));
    if (area == nullptr) {
        return false;
    }
    mInternal->mData = static_cast<uint8_t*>(area);  // an earlier area is not given back: meant so
    mInternal->mCapacity = size;
    mInternal->rewind();
    return true;
}

bool CBipBuffer::reset() {
    if (mInternal->mData == nullptr) {
        return false;
    }
    mInternal->rewind();
    return true;
}

int CBipBuffer::size() const {
    return mInternal->mCapacity;
}

bool CBipBuffer::empty() const {
    return mInternal->mReadPos == mInternal->mEndPos;
}

int CBipBuffer::used() const {
    return static_cast<int>(mInternal->mBSize + mInternal->mEndPos - mInternal->mReadPos);
}

int CBipBuffer::unused() const {
    return mInternal->unused();
}

uint8_t* CBipBuffer::peek(int& size) {
    if (empty()) {
        return nullptr;
    }
    size = static_cast<int>(mInternal->mEndPos - mInternal->mReadPos);
    return mInternal->mData + mInternal->mReadPos;
}

uint8_t* CBipBuffer::poll(int size) {
    Internal& ring = *mInternal;
    // The bound is the area's end and not the region's: more than peek() offered is not caught.
    if (size < 0 || empty() || int64_t{ring.mReadPos} + size > int64_t{ring.mCapacity}) {
        return nullptr;
    }
    uint8_t* result = ring.mData + ring.mReadPos;
    ring.mReadPos += static_cast<uint32_t>(size);
    if (ring.mReadPos >= ring.mEndPos) {
        ring.mReadPos = 0;
        ring.mEndPos =
            ring.mBSize;  // region B becomes region A; without one the ring is at its start
        ring.mBSize = 0;
        if (ring.mUseB) {
            ring.mUseB = false;
            return result;
        }
    }
    ring.chooseRegion();
    return result;
}

uint8_t* CBipBuffer::request(int size) {
    return mInternal->fits(size) ? mInternal->writePosition() : nullptr;
}

int CBipBuffer::commit(int size) {
    if (!mInternal->fits(size)) {
        return 0;
    }
    mInternal->written(size);
    return size;
}

int CBipBuffer::offer(const uint8_t* bytes, int size) {
    if (bytes == nullptr || !mInternal->fits(size)) {
        return 0;
    }
    std::memcpy(mInternal->writePosition(), bytes, static_cast<size_t>(size));
    mInternal->written(size);
    return size;
}

}  // namespace Vantel::Memory
