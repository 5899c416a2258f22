#pragma once

#include <cstdint>

#include "Vantel/Memory/Packet.h"
#include "memory/MemoryInternal.h"

namespace Vantel::Memory {

/// A packet block of this process: pool memory, a slice of another packet, a buffer of the
/// caller's, or one whose buffer comes later.
///
/// Layouts, each one allocation:
///     one block of the pool (system and buddy)   payload | extra data | record at the end
///     split, and slices: on the heap             extra data | record at the end
/// A caller's or deferred buffer has its record from operator new and extra data of its own.
class NormalMemoryInternal final : public MemoryInternal {
public:
    using FreeFunction = Packet::FreeFunction;

    /// A block by the policy of the process; null, with an error line, for impossible sizes, and
    /// silently without a policy. No memory ends the process.
    static NormalMemoryInternal* createBuffer(int32_t size, int32_t extraSize);

    /// `size` bytes of `parent`, a valid packet, from `offset`: inside it, checked by the caller.
    /// Null with an error line without memory.
    static NormalMemoryInternal* createSlice(const Packet& parent, int32_t offset, int32_t size,
                                             int32_t extraSize);

    /// Without extra data if `extraSize` is null.
    static NormalMemoryInternal* wrap(void* buffer, int32_t size, const int32_t* extraSize,
                                      FreeFunction freeFn);

    static NormalMemoryInternal* createDeferred(int32_t size, FreeFunction freeFn, void* context,
                                                int32_t extraSize);

    void destroy() override;
    int putBuffer(void* data, int size) override;
    uint8_t* getBuffer() override { return mBuffer; }
    int size() override { return static_cast<int>(mSize); }
    bool resize(int size) override;
    int capacity() override { return static_cast<int>(mCapacity); }
    void* getExtraData() override { return mExtra; }
    int getExtraSize() override { return static_cast<int>(mExtraSize); }

private:
    enum Kind : uint32_t { kPoolBlock = 0, kSlice = 1, kCallersBuffer = 2 };

    NormalMemoryInternal(Kind kind, bool deferred, void* buffer, int64_t size, int64_t capacity,
                         void* extra, int32_t extraSize);
    ~NormalMemoryInternal() override;

    static NormalMemoryInternal* createInOneBlock(int32_t size, int32_t extraSize);
    static NormalMemoryInternal* createSplit(int32_t size, int32_t extraSize);
    static const Packet& payloadOwner(const Packet& packet);
    void destroyPoolBlock();

    uint8_t* mBuffer;
    uint32_t mSize;
    uint32_t mCapacity;
    uint8_t* mExtra;  // also the start of the allocation where the record lies behind it
    uint32_t mExtraSize;
    Kind mKind;
    Packet* mParent = nullptr;  // of a slice: keeps the payload alive, and is itself none
    void* mContext = nullptr;
    FreeFunction mFreeFn;
    FreeFunction mDeferredFreeFn;
};

static_assert(sizeof(NormalMemoryInternal) == 128);

}  // namespace Vantel::Memory
