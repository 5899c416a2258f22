#include "Vantel/Memory/Buffer.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include "Vantel/Memory/IMemoryPool.h"
#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/ProcessServices.h"
#include "frame/base/Guard.h"

namespace Vantel::Memory {

namespace {

/// Up to the next page; a whole number of pages gets one more.
int64_t toPages(int64_t size) {
    const int64_t page = Orbel::getPageSize();
    return size + page - size % page;
}

}  // namespace

class Buffer::Internal {
public:
    Internal() = default;
    Internal(const Internal&) = delete;
    Internal& operator=(const Internal&) = delete;
    ~Internal() { IMemoryPool::instance()->deallocate(mData); }

    bool initial(int64_t size, int headSize, int tailSize);
    int append(const signed char* data, int size, Zone zone);

    /// Null for no zone.
    uint32_t* used(Zone zone);
    signed char* start(Zone zone) const;

    Orbel::CMutex& mutex() const { return mMutex; }
    bool valid() const { return mData != nullptr; }
    int capacity() const { return static_cast<int>(mCapacity); }

private:
    int64_t room(Zone zone) const;
    bool replaceArea(int64_t size, signed char*& old);

    signed char* mData = nullptr;
    uint32_t mBodyUsed = 0;
    uint32_t mHeadUsed = 0;
    uint32_t mTailUsed = 0;
    uint32_t mCapacity = 0;
    int32_t mHeadSize = 0;
    int32_t mTailSize = 0;
    mutable Orbel::CMutex mMutex;
};

bool Buffer::Internal::initial(int64_t size, int headSize, int tailSize) {
    auto* area =
        static_cast<signed char*>(IMemoryPool::instance()->allocate(static_cast<size_t>(size)));
    if (area == nullptr) {
        return false;
    }
    IMemoryPool::instance()->deallocate(mData);
    mData = area;
    mCapacity = static_cast<uint32_t>(size);
    mHeadSize = headSize;
    mTailSize = tailSize;
    mBodyUsed = mHeadUsed = mTailUsed = 0;
    return true;
}

uint32_t* Buffer::Internal::used(Zone zone) {
    switch (zone) {
        case kHead:
            return &mHeadUsed;
        case kBody:
            return &mBodyUsed;
        case kTail:
            return &mTailUsed;
    }
    return nullptr;
}

signed char* Buffer::Internal::start(Zone zone) const {
    switch (zone) {
        case kHead:
            return mData;
        case kBody:
            return mData + mHeadSize;
        case kTail:
            return mData + (mCapacity - static_cast<uint32_t>(mTailSize));
    }
    return nullptr;
}

int64_t Buffer::Internal::room(Zone zone) const {
    if (zone == kHead) {
        return mHeadSize;
    }
    return zone == kTail ? mTailSize : int64_t{mCapacity} - mHeadSize - mTailSize;
}

int Buffer::Internal::append(const signed char* data, int size, Zone zone) {
    uint32_t* filled = used(zone);
    if (filled == nullptr || mData == nullptr) {
        return -1;
    }
    signed char* old = nullptr;  // kept until the write is done: `data` may lie in it
    if (int64_t{*filled} + size > room(zone) &&
        (zone != kBody || !replaceArea(int64_t{mBodyUsed} + size + mTailSize + mHeadSize, old))) {
        return -1;
    }
    std::memcpy(start(zone) + *filled, data, static_cast<size_t>(size));
    *filled += static_cast<uint32_t>(size);
    IMemoryPool::instance()->deallocate(old);
    return size;
}

/// An area for `needed` bytes, with what the zones hold; the former one becomes `old`.
bool Buffer::Internal::replaceArea(int64_t needed, signed char*& old) {
    const auto larger = static_cast<int64_t>(static_cast<double>(mCapacity) * 1.5);
    const int64_t size = toPages(std::max(needed, larger));
    if (size > INT_MAX) {
        return false;
    }
    void* area = IMemoryPool::instance()->allocate(static_cast<size_t>(size));
    if (area == nullptr) {
        return false;
    }
    const signed char* oldTail = start(kTail);
    old = mData;
    mData = static_cast<signed char*>(area);
    mCapacity = static_cast<uint32_t>(size);
    std::memcpy(mData, old, static_cast<size_t>(mHeadSize) + mBodyUsed);
    std::memcpy(start(kTail), oldTail, static_cast<size_t>(mTailSize));
    return true;
}

Buffer::Buffer() : mInternal(new Internal) {}

Buffer::~Buffer() {
    delete mInternal;
}

bool Buffer::initial(int total, int headSize, int tailSize) {
    if (mInternal == nullptr || total < 1 || headSize < 0 || tailSize < 0 ||
        int64_t{headSize} + tailSize >= total) {
        return false;
    }
    const int64_t size = toPages(total);
    bool done = false;
    {
        Orbel::Guard<Orbel::CMutex> guard(mInternal->mutex());
        done = size <= INT_MAX && mInternal->initial(size, headSize, tailSize);
    }
    if (!done) {  // the object is of no more use, and says so by valid()
        delete mInternal;
        mInternal = nullptr;
    }
    return done;
}

void Buffer::resize(Zone zone) {
    if (mInternal == nullptr) {
        return;
    }
    Orbel::Guard<Orbel::CMutex> guard(mInternal->mutex());
    if (uint32_t* used = mInternal->used(zone)) {
        *used = 0;
    }
}

int Buffer::size(Zone zone) const {
    if (zone != kHead && zone != kBody && zone != kTail) {
        return -1;
    }
    if (mInternal == nullptr) {
        return 0;
    }
    Orbel::Guard<Orbel::CMutex> guard(mInternal->mutex());
    return static_cast<int>(*mInternal->used(zone));
}

int Buffer::putData(signed char* data, int size, Zone zone) {
    if (data == nullptr || size < 1 || mInternal == nullptr) {
        return -1;
    }
    Orbel::Guard<Orbel::CMutex> guard(mInternal->mutex());
    return mInternal->append(data, size, zone);
}

signed char* Buffer::getData(Zone zone) const {
    if (mInternal == nullptr) {
        return nullptr;
    }
    Orbel::Guard<Orbel::CMutex> guard(mInternal->mutex());
    return mInternal->valid() ? mInternal->start(zone) : nullptr;
}

int Buffer::capacity() const {
    if (mInternal == nullptr) {
        return 0;
    }
    Orbel::Guard<Orbel::CMutex> guard(mInternal->mutex());
    return mInternal->capacity();
}

bool Buffer::valid() const {
    if (mInternal == nullptr) {
        return false;
    }
    Orbel::Guard<Orbel::CMutex> guard(mInternal->mutex());
    return mInternal->valid();
}

}  // namespace Vantel::Memory
