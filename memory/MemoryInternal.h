#pragma once

#include <atomic>
#include <cstdint>

namespace Vantel::Memory {

/// The block behind packets: base of the process-local kind and of the shared one.
///
/// The order of the virtual operations is fixed, the destructor's slots stand last. A block is
/// born with one reference, and only destroy() ends it: how is the business of who made it.
///
/// Threads: addRef() and release() from any thread; the rest as the packets' users agree.
class MemoryInternal {
public:
    MemoryInternal(const MemoryInternal&) = delete;
    MemoryInternal& operator=(const MemoryInternal&) = delete;

    /// Frees the block; called once, by the last release().
    virtual void destroy() = 0;
    virtual void addRef() { mRefCount.fetch_add(1); }
    // Sequentially consistent: whoever destroys the block must see all that the others wrote.
    virtual void release() {
        if (mRefCount.fetch_sub(1) == 1) {
            destroy();
        }
    }
    virtual int putBuffer(void* data, int size) = 0;
    virtual uint8_t* getBuffer() = 0;
    virtual int size() = 0;
    virtual bool resize(int size) = 0;
    virtual int capacity() = 0;
    virtual void* getExtraData() = 0;
    virtual int getExtraSize() = 0;
    virtual ~MemoryInternal() = default;

protected:
    explicit MemoryInternal(bool flag) : mFlag(flag) {}

    bool mFlag;  // what it says is the derived class's: deferred, or valid
    std::atomic<int32_t> mRefCount{1};
};

static_assert(sizeof(MemoryInternal) == 16);

}  // namespace Vantel::Memory
