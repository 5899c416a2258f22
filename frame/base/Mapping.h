#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <utility>

namespace Vantel::Orbel {

/// Owns one region made by mmap; unmaps it in its destructor.
class Mapping {
public:
    Mapping() noexcept = default;
    /// Takes over `size` bytes at `base`, which mmap returned.
    Mapping(void* base, size_t size) noexcept : mBase(base), mSize(size) {}
    Mapping(Mapping&& other) noexcept
        : mBase(std::exchange(other.mBase, nullptr)), mSize(std::exchange(other.mSize, 0)) {}
    Mapping& operator=(Mapping&& other) noexcept {
        std::swap(mBase, other.mBase);
        std::swap(mSize, other.mSize);
        return *this;
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping() { reset(); }

    void* base() const noexcept { return mBase; }
    size_t size() const noexcept { return mSize; }
    bool valid() const noexcept { return mBase != nullptr; }

    /// False, with errno and the mapping kept, if munmap refused. True without a mapping.
    bool reset() noexcept {
        if (mBase != nullptr && ::munmap(mBase, mSize) != 0) {
            return false;
        }
        mBase = nullptr;
        mSize = 0;
        return true;
    }

private:
    void* mBase = nullptr;
    size_t mSize = 0;
};

}  // namespace Vantel::Orbel
