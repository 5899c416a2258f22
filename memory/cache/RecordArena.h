#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "memory/cache/SizeClass.h"
#include "memory/cache/SystemMemoryAccounting.h"

namespace Vantel::Memory {

/// Raw memory for the allocator's own records, straight from the system: it must not recurse into
/// the heap that it serves. Chunks stay mapped until unmapAll(). The owner guards it.
///
/// Memory that was never handed out before is zero.
template <class Record, size_t kChunkPages>
class RecordArena {
public:
    /// Memory for one record, null if the system refuses.
    void* take() {
        if (mFree != nullptr) {
            return std::exchange(mFree, *static_cast<void**>(mFree));
        }
        if (mLeft == 0 && !addChunk()) {
            return nullptr;
        }
        --mLeft;
        return std::exchange(mFresh, mFresh + sizeof(Record));
    }

    void give(void* record) {
        *static_cast<void**>(record) = mFree;
        mFree = record;
    }

    /// Nothing was ever taken.
    bool empty() const { return mChunks == nullptr; }

    void unmapAll() {
        while (mChunks != nullptr) {
            Chunk* chunk = std::exchange(mChunks, mChunks->next);
            unmapPages(chunk, chunk->pages);
        }
        mFree = nullptr;
        mLeft = 0;
    }

private:
    struct Chunk {
        uint64_t pages;
        Chunk* next;
    };
    static_assert(sizeof(Chunk) == 16);
    static_assert(sizeof(Record) % alignof(Record) == 0 && sizeof(Record) >= sizeof(void*));

    static constexpr size_t kOffset = std::max(sizeof(Chunk), alignof(Record));
    static constexpr size_t kRecords = (kChunkPages * kPageSize - kOffset) / sizeof(Record);
    static_assert(kRecords > 0);

    bool addChunk() {
        void* memory = mapPages(kChunkPages);
        if (memory == nullptr) {
            return false;
        }
        mChunks = new (memory) Chunk{kChunkPages, mChunks};
        mFresh = static_cast<char*>(memory) + kOffset;
        mLeft = kRecords;
        return true;
    }

    Chunk* mChunks = nullptr;
    void* mFree = nullptr;
    char* mFresh = nullptr;
    size_t mLeft = 0;
};

}  // namespace Vantel::Memory
