#include "Vantel/Orbel/Buffer.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace Vantel::Orbel {

struct Buffer::State {
    std::atomic<uint64_t> references{1};
    uint8_t* base = nullptr;
    uint8_t* end = nullptr;
    uint8_t* cursor = nullptr;
    int32_t capacity = 0;
};

Buffer::Buffer() : mState(new State) {}

Buffer::Buffer(const Buffer& other) : mState(other.mState) {
    // Relaxed: who copies holds a reference already, so the state cannot go meanwhile.
    mState->references.fetch_add(1, std::memory_order_relaxed);
}

Buffer& Buffer::operator=(const Buffer& other) {
    if (mState != other.mState) {
        release();
        mState = other.mState;
        mState->references.fetch_add(1, std::memory_order_relaxed);
    }
    return *this;
}

Buffer::~Buffer() {
    release();
}

void Buffer::release() {
    // Release and acquire: the last one frees after everything that the others did to the bytes.
    if (mState->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        std::free(mState->base);
        delete mState;
    }
}

void Buffer::reset() {
    mState->cursor = mState->base;
}

uint8_t* Buffer::data(int offset) const {
    if (mState->base == nullptr || offset < 0 || offset > mState->capacity) {
        return nullptr;
    }
    return mState->base + offset;
}

uint8_t* Buffer::offset() const {
    return mState->cursor;
}

int Buffer::size() const {
    return static_cast<int>(mState->end - mState->base);
}

int Buffer::capability() const {
    return mState->capacity;
}

int Buffer::remain() const {
    return static_cast<int>(mState->end - mState->cursor);
}

int Buffer::tell() const {
    return static_cast<int>(mState->cursor - mState->base);
}

int Buffer::resize(int size) {
    State& state = *mState;
    if (size < 0) {
        return -1;
    }
    if (size > state.capacity) {
        const size_t bytes = ((static_cast<size_t>(size) + 3) & ~size_t{3}) + 4;
        const ptrdiff_t position = tell();
        void* const storage =
            state.base == nullptr ? std::calloc(bytes, 1) : std::realloc(state.base, bytes);
        if (storage == nullptr) {
            return -1;  // all is as before
        }
        state.base = static_cast<uint8_t*>(storage);
        state.cursor = state.base + position;
        state.capacity = size;
    }
    // The cursor stays, also where it is past the end now: meant so.
    state.end = state.base == nullptr ? nullptr : state.base + size;
    return size;
}

int Buffer::append(const void* data, int length, bool grow) {
    if (length < 0 || (data == nullptr && length > 0)) {
        return -1;
    }
    if (grow && length > remain() && length <= std::numeric_limits<int>::max() - mState->capacity) {
        resize(mState->capacity + length);
    }
    const int count = std::min(length, std::max(remain(), 0));
    if (count > 0) {
        std::memcpy(mState->cursor, data, static_cast<size_t>(count));
        mState->cursor += count;
    }
    return count;
}

Buffer* Buffer::clone() const {
    auto* const copy = new Buffer;
    const int bytes = mState->capacity;
    if (copy->resize(bytes) < 0) {
        delete copy;
        return nullptr;
    }
    if (bytes > 0) {
        std::memcpy(copy->mState->base, mState->base, static_cast<size_t>(bytes));
        copy->mState->cursor = copy->mState->end;
    }
    return copy;
}

int Buffer::seek(int offset, int whence) {
    State& state = *mState;
    if (state.base == nullptr && (whence < 0 || whence > 2)) {
        state.cursor = nullptr;  // meant so: without storage there is nothing to refuse
        return 0;
    }
    int64_t target = offset;
    switch (whence) {
        case 0:
            break;
        case 1:
            target += tell();
            break;
        case 2:
            target += size();
            break;
        default:
            return -1;
    }
    if (target < 0 || target > size()) {
        return -1;
    }
    state.cursor = state.base == nullptr ? nullptr : state.base + target;
    return static_cast<int>(target);
}

}  // namespace Vantel::Orbel
