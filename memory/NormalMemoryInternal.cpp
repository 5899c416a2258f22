#include "memory/NormalMemoryInternal.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "memory/MemoryManagerInternal.h"

namespace Vantel::Memory {

namespace {

constexpr int64_t kRecordSize = sizeof(NormalMemoryInternal);

MemoryManagerInternal& manager() {
    return MemoryManagerInternal::instance();
}

/// Bytes of an allocation that ends in a record: alignments of less than the record's own cost up
/// to six more, so that it stands aligned at the very end.
int64_t withRecord(int64_t payloadSize, int64_t extraSize) {
    constexpr int64_t kAlign = alignof(NormalMemoryInternal);
    const int64_t size = payloadSize + manager().align(extraSize + kRecordSize);
    return (size + kAlign - 1) & -kAlign;
}

void* recordPlace(void* start, int64_t allocated) {
    return static_cast<uint8_t*>(start) + (allocated - kRecordSize);
}

/// `allocated` is what has to fit in an int; a buffer that is there already may be as large as one.
bool possible(int32_t size, int32_t extraSize, int64_t allocated) {
    if (size >= 0 && extraSize >= 0 && allocated <= INT_MAX) {
        return true;
    }
    ORBEL_LOG_ERROR(" no packet can have %d bytes and %d of extra data\n", size, extraSize);
    return false;
}

}  // namespace

NormalMemoryInternal::NormalMemoryInternal(Kind kind, bool deferred, void* buffer, int64_t size,
                                           int64_t capacity, void* extra, int32_t extraSize)
    : MemoryInternal(deferred),
      mBuffer(static_cast<uint8_t*>(buffer)),
      mSize(static_cast<uint32_t>(size)),
      mCapacity(static_cast<uint32_t>(capacity)),
      mExtra(static_cast<uint8_t*>(extra)),
      mExtraSize(static_cast<uint32_t>(extraSize)),
      mKind(kind) {}

NormalMemoryInternal* NormalMemoryInternal::createBuffer(int32_t size, int32_t extraSize) {
    const MemoryPolicy policy = manager().policy();
    const int64_t whole = withRecord(manager().align(size), extraSize);
    if (policy == policyNone || !possible(size, extraSize, whole)) {
        return nullptr;
    }
    return policy == policyBuddySplit ? createSplit(size, extraSize)
                                      : createInOneBlock(size, extraSize);
}

NormalMemoryInternal* NormalMemoryInternal::createInOneBlock(int32_t size, int32_t extraSize) {
    const int64_t capacity = manager().align(size);
    const int64_t total = withRecord(capacity, extraSize);
    void* start = manager().malloc(static_cast<int>(total));
    ORBEL_REQUIRE(start != nullptr, "alloc %d bytes,out of memory\n", static_cast<int>(total));
    return new (recordPlace(start, total))
        NormalMemoryInternal(kPoolBlock, false, start, size, capacity,
                             static_cast<uint8_t*>(start) + capacity, extraSize);
}

NormalMemoryInternal* NormalMemoryInternal::createSplit(int32_t size, int32_t extraSize) {
    void* payload = nullptr;
    if (size >= 1) {
        payload = manager().malloc(size);  // not aligned: the blocks of the region are, anyway
        ORBEL_REQUIRE(payload != nullptr, "alloc %d bytes out of memory\n", size);
    }
    const int64_t header = withRecord(0, extraSize);
    void* start = std::malloc(static_cast<size_t>(header));
    ORBEL_REQUIRE(start != nullptr, "out of memory\n");
    return new (recordPlace(start, header))
        NormalMemoryInternal(kPoolBlock, false, payload, size, size, start, extraSize);
}

/// What a slice of `packet` keeps: for a slice of a slice, the packet behind both. One that is cut
/// again and again would else keep them all, and nest their destructors as deep.
const Packet& NormalMemoryInternal::payloadOwner(const Packet& packet) {
    // Packets that can be sliced hold no other class.
    const auto* block = static_cast<const NormalMemoryInternal*>(packet.mInternal);
    return block->mKind == kSlice ? *block->mParent : packet;
}

NormalMemoryInternal* NormalMemoryInternal::createSlice(const Packet& parent, int32_t offset,
                                                        int32_t size, int32_t extraSize) {
    const int64_t header = withRecord(0, extraSize);
    if (!possible(size, extraSize, header)) {
        return nullptr;
    }
    void* start = std::malloc(static_cast<size_t>(header));
    if (start == nullptr) {
        ORBEL_LOG_ERROR("out of memory\n");
        return nullptr;
    }
    uint8_t* buffer = parent.getBuffer();  // null in a deferred packet that has none yet
    auto* slice = new (recordPlace(start, header)) NormalMemoryInternal(
        kSlice, false, buffer == nullptr ? nullptr : buffer + offset, size, size, start, extraSize);
    slice->mParent = new Packet(payloadOwner(parent));
    return slice;
}

NormalMemoryInternal* NormalMemoryInternal::wrap(void* buffer, int32_t size,
                                                 const int32_t* extraSize, FreeFunction freeFn) {
    const int32_t extraBytes = extraSize == nullptr ? 0 : *extraSize;
    if (!possible(size, extraBytes, extraBytes)) {
        return nullptr;
    }
    // Without memory for the extra data the packet still is one.
    void* extra = extraSize == nullptr ? nullptr : std::malloc(static_cast<size_t>(extraBytes));
    auto* block =
        new NormalMemoryInternal(kCallersBuffer, false, buffer, size, size, extra, extraBytes);
    block->mFreeFn = std::move(freeFn);
    return block;
}

NormalMemoryInternal* NormalMemoryInternal::createDeferred(int32_t size, FreeFunction freeFn,
                                                           void* context, int32_t extraSize) {
    if (!possible(size, extraSize, extraSize)) {
        return nullptr;
    }
    void* extra = std::malloc(static_cast<size_t>(extraSize));
    auto* block = new NormalMemoryInternal(kPoolBlock, true, nullptr, size, size, extra, extraSize);
    block->mDeferredFreeFn = std::move(freeFn);
    block->mContext = context;
    return block;
}

int NormalMemoryInternal::putBuffer(void* data, int size) {
    if (size < 0) {
        return 0;
    }
    if (mFlag) {  // deferred: each call names the buffer anew, of whatever size
        mBuffer = static_cast<uint8_t*>(data);
        mSize = static_cast<uint32_t>(size);
        return size;
    }
    const uint32_t room = mCapacity - mSize;
    const int count = static_cast<int>(std::min(static_cast<uint32_t>(size), room));
    if (count < 1 || data == nullptr || mBuffer == nullptr) {
        return 0;
    }
    if (manager().hasHandle()) {
        manager().memcpy(mBuffer + mSize, data, count);
    } else {  // a wrapped buffer or its slice needs no policy
        std::memcpy(mBuffer + mSize, data, static_cast<size_t>(count));
    }
    mSize += static_cast<uint32_t>(count);
    return count;
}

bool NormalMemoryInternal::resize(int size) {
    if (static_cast<uint32_t>(size) > mCapacity) {
        return false;
    }
    mSize = static_cast<uint32_t>(size);
    return true;
}

/// What the record owns besides its own memory. The payload of a pool block is destroy()'s.
NormalMemoryInternal::~NormalMemoryInternal() {
    if (mFlag) {
        if (mBuffer != nullptr && !mDeferredFreeFn.empty()) {
            mDeferredFreeFn(mContext, mCapacity, mExtra);
        }
        std::free(mExtra);
    } else if (mKind == kSlice) {
        delete mParent;
    } else if (mKind == kCallersBuffer) {
        if (!mFreeFn.empty()) {
            mFreeFn(mBuffer, mSize, mExtra);
        }
        std::free(mExtra);
    }
}

void NormalMemoryInternal::destroy() {
    if (mFlag) {
        delete this;
        return;
    }
    switch (mKind) {
        case kSlice: {
            void* start = mExtra;  // the record lies in it: nothing is read once that is gone
            this->~NormalMemoryInternal();
            std::free(start);
            return;
        }
        case kCallersBuffer:
            delete this;
            return;
        case kPoolBlock:
            destroyPoolBlock();
            return;
    }
    ORBEL_REQUIRE(mKind <= kCallersBuffer, "unreachable!!");
}

void NormalMemoryInternal::destroyPoolBlock() {
    void* payload = mBuffer;
    void* start = manager().policy() == policyBuddySplit ? mExtra : nullptr;
    this->~NormalMemoryInternal();
    manager().free(payload);
    std::free(start);
}

}  // namespace Vantel::Memory
