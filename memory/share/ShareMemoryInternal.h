#pragma once

#include <cstdint>
#include <memory>

#include "Vantel/Orbel/TDelegate.h"
#include "memory/MemoryInternal.h"

namespace Vantel::Memory {

class MemoryBlock;

using BufferRelease = Orbel::TDelegate<void, void*, unsigned long, unsigned char*>;

/// Compares equal to the release delegate of a buffer that is a share description. Under policy 4
/// such a buffer becomes the packet that it describes, by fromDescription(). Calling it does
/// nothing.
BufferRelease shareDescriptionMarker();

/// What a packet in shared memory is made of. The block is shared with other processes; the record,
/// the sizes and the extra data are this process's own.
///
/// Threads: the counting from any; the sizes belong to who fills the packet.
class ShareMemoryInternal final : public MemoryInternal {
public:
    /// A packet with room for `size` bytes, none of them in use, and `extraSize` bytes of extra
    /// data, with one reference. Null, with an error line, if there is no room, and for no size.
    static ShareMemoryInternal* createBuffer(int size, int extraSize);

    /// The packet of the share description of `size` bytes at `description`, claimed from who sent
    /// it. Null, with an error line, if it is none or contradicts itself or the pool, or its block
    /// is gone.
    static ShareMemoryInternal* fromDescription(void* description, int size);

    void destroy() override;
    /// Appends what fits of `size` bytes; how many that were.
    int putBuffer(void* data, int size) override;
    uint8_t* getBuffer() override;
    /// Bytes in use: 0 in a new one.
    int size() override;
    bool resize(int size) override;
    int capacity() override;
    void* getExtraData() override;
    int getExtraSize() override;

private:
    ShareMemoryInternal() : MemoryInternal(true) {}  // the flag: valid
    ~ShareMemoryInternal() override;

    bool allocate(int size, int extraSize);
    bool claim(const void* description, int size);

    std::shared_ptr<MemoryBlock> mBlock;
    uint32_t mSize = 0;  // asked for, or described
    uint32_t mUsed = 0;
    uint32_t mLeft = 0;  // of the capacity
    uint32_t mCapacity = 0;
    void* mExtra = nullptr;  // from malloc
    uint32_t mExtraSize = 0;
};

}  // namespace Vantel::Memory
