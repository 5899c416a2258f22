#include "Vantel/Memory/Packet.h"

#include <climits>
#include <utility>

#include "Vantel/Orbel/ErrorState.h"
#include "frame/base/Log.h"
#include "memory/MemoryManagerInternal.h"
#include "memory/NormalMemoryInternal.h"
#include "memory/share/ShareMemoryInternal.h"

namespace Vantel::Memory {

namespace {

constexpr int kNotWithSharedMemory = 10;  // last error of a slice that the policy can't make

bool sharing() {
    return MemoryManagerInternal::instance().policy() == policyShare;
}

MemoryInternal* newBlock(int size, int extraSize) {
    if (sharing()) {
        return ShareMemoryInternal::createBuffer(size, extraSize);
    }
    return NormalMemoryInternal::createBuffer(size, extraSize);
}

MemoryInternal* newSlice(const Packet& other, int offset, int size, int extraSize) {
    if (sharing()) {
        Orbel::setLastErrno(kNotWithSharedMemory);
        return nullptr;
    }
    const int available = other.size();
    if (offset < 0 || size < 0 || offset >= available || size > available - offset) {
        ORBEL_LOG_ERROR("offset or size invalid，packet size(%zu),offset(%zu),size(%zu)\n",
                        static_cast<size_t>(available), static_cast<size_t>(offset),
                        static_cast<size_t>(size));
        return nullptr;
    }
    return NormalMemoryInternal::createSlice(other, offset, size, extraSize);
}

MemoryInternal* newWrapping(void* buffer, int size, const int* extraSize,
                            Packet::FreeFunction freeFn) {
    if (sharing() && freeFn == shareDescriptionMarker()) {
        return ShareMemoryInternal::fromDescription(buffer, size);  // extra data comes with it
    }
    return NormalMemoryInternal::wrap(buffer, size, extraSize, std::move(freeFn));
}

MemoryInternal* newDeferred(int size, Packet::FreeFunction freeFn, void* context, int extraSize) {
    if (sharing()) {
        return ShareMemoryInternal::createBuffer(size, extraSize);
    }
    return NormalMemoryInternal::createDeferred(size, std::move(freeFn), context, extraSize);
}

}  // namespace

Packet::Packet() : mInternal(nullptr) {}

Packet::Packet(const Packet& other) : mInternal(other.mInternal) {
    if (mInternal != nullptr) {
        mInternal->addRef();
    }
}

Packet::Packet(int size, int extraSize) : mInternal(newBlock(size, extraSize)) {}

Packet::Packet(const Packet& other, int offset, int size, int extraSize)
    : mInternal(newSlice(other, offset, size, extraSize)) {}

Packet::Packet(void* buffer, int size, FreeFunction freeFn)
    : mInternal(newWrapping(buffer, size, nullptr, std::move(freeFn))) {}

Packet::Packet(void* buffer, int size, int extraSize, FreeFunction freeFn)
    : mInternal(newWrapping(buffer, size, &extraSize, std::move(freeFn))) {}

Packet::Packet(int size, FreeFunction freeFn, void* context, int extraSize)
    : mInternal(newDeferred(size, std::move(freeFn), context, extraSize)) {}

Packet::~Packet() {
    reset();
}

Packet& Packet::operator=(const Packet& other) {
    if (mInternal == other.mInternal) {
        return *this;
    }
    // Taken before the old block goes: `other` may live in what that block keeps.
    MemoryInternal* taken = other.mInternal;
    if (taken != nullptr) {
        taken->addRef();
    }
    reset();
    mInternal = taken;
    return *this;
}

void Packet::reset() {
    MemoryInternal* held = mInternal;
    mInternal = nullptr;  // before a release function of the application runs
    if (held != nullptr) {
        held->release();
    }
}

bool Packet::valid() const {
    return mInternal != nullptr;
}

int Packet::putBuffer(void* data, int size) {
    return mInternal == nullptr ? 0 : mInternal->putBuffer(data, size);
}

uint8_t* Packet::getBuffer() const {
    return mInternal == nullptr ? nullptr : mInternal->getBuffer();
}

int Packet::size() const {
    return mInternal == nullptr ? 0 : mInternal->size();
}

int Packet::capacity() const {
    return mInternal == nullptr ? 0 : mInternal->capacity();
}

bool Packet::resize(size_t size) {
    return mInternal != nullptr && size <= INT_MAX && mInternal->resize(static_cast<int>(size));
}

void* Packet::getExtraData() const {
    return getExtraSize() == 0 ? nullptr : mInternal->getExtraData();
}

int Packet::getExtraSize() const {
    return mInternal == nullptr ? 0 : mInternal->getExtraSize();
}

}  // namespace Vantel::Memory
