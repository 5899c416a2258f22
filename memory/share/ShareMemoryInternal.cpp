#include "memory/share/ShareMemoryInternal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "frame/base/Log.h"
#include "memory/share/MemoryBlock.h"
#include "memory/share/ShareDescription.h"

namespace Vantel::Memory {

namespace {

void describedElsewhere(void* /*buffer*/, unsigned long /*size*/, unsigned char* /*extra*/) {}

}  // namespace

BufferRelease shareDescriptionMarker() {
    return &describedElsewhere;
}

ShareMemoryInternal* ShareMemoryInternal::createBuffer(int size, int extraSize) {
    auto* const record = new ShareMemoryInternal;
    record->mFlag = record->allocate(size, extraSize);
    if (!record->mFlag) {
        delete record;
        return nullptr;
    }
    return record;
}

ShareMemoryInternal* ShareMemoryInternal::fromDescription(void* description, int size) {
    auto* const record = new ShareMemoryInternal;
    record->mFlag = record->claim(description, size);
    if (!record->mFlag) {
        delete record;
        return nullptr;
    }
    return record;
}

bool ShareMemoryInternal::allocate(int size, int extraSize) {
    if (size == 0) {
        return false;
    }
    mSize = static_cast<uint32_t>(size);
    mBlock.reset(MemoryBlock::createMemoryBlock(size));
    if (mBlock == nullptr) {
        ORBEL_LOG_ERROR("createMemoryBlock failed.\n");
        return false;
    }
    mCapacity = static_cast<uint32_t>(mBlock->getSize());
    mLeft = mCapacity;
    if (extraSize != 0) {
        mExtra = extraSize < 0 ? nullptr : std::malloc(static_cast<size_t>(extraSize));
        if (mExtra == nullptr) {
            ORBEL_LOG_ERROR("alloc extra failed.\n");
            return false;
        }
        mExtraSize = static_cast<uint32_t>(extraSize);
    }
    return true;
}

bool ShareMemoryInternal::claim(const void* description, int size) {
    ShareDescription head{};
    if (!readShareDescription(description, size, head)) {
        return false;
    }
    mSize = head.packetSize;
    mUsed = head.packetSize;
    if (head.extraSize != 0) {
        mExtra = std::malloc(head.extraSize);
        if (mExtra == nullptr) {
            ORBEL_LOG_ERROR("alloc extra data failed.\n");
            return false;
        }
        std::memcpy(mExtra, static_cast<const uint8_t*>(description) + sizeof head, head.extraSize);
        mExtraSize = head.extraSize;
    }
    mBlock.reset(MemoryBlock::getMemoryBlock(head.block, sizeof head.block));
    if (mBlock == nullptr) {
        ORBEL_LOG_ERROR("get memory block failed.\n");
        return false;
    }
    mCapacity = static_cast<uint32_t>(mBlock->getSize());
    if (mUsed > mCapacity) {
        ORBEL_LOG_ERROR("size exceed capacity\n");
        return false;
    }
    mLeft = mCapacity - mUsed;
    return true;
}

ShareMemoryInternal::~ShareMemoryInternal() {
    std::free(mExtra);
}

void ShareMemoryInternal::destroy() {
    delete this;
}

int ShareMemoryInternal::putBuffer(void* data, int size) {
    uint8_t* const buffer = getBuffer();
    if (buffer == nullptr) {
        ORBEL_LOG_ERROR("get buffer failed.\n");
        return 0;
    }
    if (mLeft == 0 || data == nullptr || size < 0) {
        return 0;
    }
    const uint32_t count = std::min(static_cast<uint32_t>(size), mLeft);
    std::memcpy(buffer + mUsed, data, count);
    mUsed += count;
    mLeft -= count;
    return static_cast<int>(count);
}

uint8_t* ShareMemoryInternal::getBuffer() {
    if (mBlock == nullptr) {
        ORBEL_LOG_ERROR("memory block is null.\n");
        return nullptr;
    }
    return static_cast<uint8_t*>(mBlock->getBuffer());
}

int ShareMemoryInternal::size() {
    return static_cast<int>(mUsed);
}

bool ShareMemoryInternal::resize(int size) {
    if (static_cast<uint32_t>(size) > mCapacity) {  // a negative one is, too
        ORBEL_LOG_ERROR("size exceed capacity\n");
        return false;
    }
    mUsed = static_cast<uint32_t>(size);
    mLeft = mCapacity - mUsed;
    return true;
}

int ShareMemoryInternal::capacity() {
    return static_cast<int>(mCapacity);
}

void* ShareMemoryInternal::getExtraData() {
    return mExtra;
}

int ShareMemoryInternal::getExtraSize() {
    return static_cast<int>(mExtraSize);
}

}  // namespace Vantel::Memory
