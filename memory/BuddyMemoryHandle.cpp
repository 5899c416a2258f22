#include "memory/BuddyMemoryHandle.h"

#include <cstring>

#include "Vantel/Utils/Bits.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "memory/BuddyPages.h"

namespace Vantel::Memory {

/// The free lists as the shared arithmetic wants them.
class BuddyMemoryHandle::Store {
public:
    explicit Store(BuddyMemoryHandle& handle) : mHandle(handle) {}

    uint32_t orderCount() const { return static_cast<uint32_t>(mHandle.mOrderCount); }
    uint32_t pageCount() const { return static_cast<uint32_t>(mHandle.mBlockCount); }
    int32_t state(uint32_t page) const { return mHandle.mBlocks[page].order; }
    void setState(uint32_t page, int32_t state) { mHandle.mBlocks[page].order = state; }

    bool empty(uint32_t order) const { return head(order).next == &head(order); }
    int64_t pop(uint32_t order) {
        Block& first = *head(order).next;
        unlink(first);
        return first.index;
    }
    bool remove(uint32_t /*order*/, uint32_t page) {
        unlink(mHandle.mBlocks[page]);
        return true;
    }
    void push(uint32_t order, uint32_t page) {
        link(mHandle.mBlocks[page], head(order), *head(order).next);
    }
    void append(uint32_t order, uint32_t page) {
        link(mHandle.mBlocks[page], *head(order).prev, head(order));
    }

    template <class Visit>
    void forEach(uint32_t order, Visit&& visit) const {
        for (Block* block = head(order).next; block != &head(order); block = block->next) {
            visit(*block);
        }
    }

private:
    Block& head(uint32_t order) const { return mHandle.mLists[order]; }
    static void link(Block& block, Block& before, Block& behind) {
        block.prev = &before;
        block.next = &behind;
        before.next = &block;
        behind.prev = &block;
    }
    static void unlink(Block& block) {
        block.prev->next = block.next;
        block.next->prev = block.prev;
    }

    BuddyMemoryHandle& mHandle;
};

BuddyMemoryHandle::BuddyMemoryHandle(const MemoryOperator& op, const MemoryParameter& param)
    : mChunkMask(param.chunkSize - 1),
      mChunkShift(static_cast<int32_t>(Utils::log2Int(static_cast<uint32_t>(param.chunkSize)))),
      mBlockCount(param.totalSize / param.chunkSize),
      mOperator(op),
      mTotalSize(param.totalSize),
      mChunkSize(param.chunkSize),
      mAlignSize(param.alignSize) {
    mOrderCount = static_cast<int32_t>(buddyOrderCount(static_cast<uint32_t>(mBlockCount), 0));
    initMemoryAlg();
}

BuddyMemoryHandle::~BuddyMemoryHandle() {
    mOperator.free(mOriginBuffer);
    delete[] mBlocks;
    delete[] mLists;
}

void BuddyMemoryHandle::initMemoryAlg() {
    // One chunk more, so that the base can be rounded up. A negative size has no memory.
    mOriginBuffer = mBlockCount < 0
                        ? nullptr
                        : mOperator.malloc((static_cast<unsigned long>(mBlockCount) + 1) *
                                           static_cast<unsigned long>(mChunkSize));
    ORBEL_REQUIRE(mOriginBuffer != nullptr, "osNullptr != mOriginBuffer\n");
    const auto mask = static_cast<uintptr_t>(mChunkMask);
    const auto origin = reinterpret_cast<uintptr_t>(mOriginBuffer);
    mBase = static_cast<uint8_t*>(mOriginBuffer) + (((origin + mask) & ~mask) - origin);

    mBlocks = new Block[static_cast<size_t>(mBlockCount)];
    mLists = new Block[static_cast<size_t>(mOrderCount)];
    for (int32_t i = 0; i < mBlockCount; ++i) {
        uint8_t* address = mBase + (static_cast<size_t>(i) << mChunkShift);
        mBlocks[i] = {i, kInsideBlock, address, nullptr, nullptr};
    }
    for (int32_t i = 0; i < mOrderCount; ++i) {
        mLists[i] = {i, freeHead(static_cast<uint32_t>(i)), nullptr, &mLists[i], &mLists[i]};
    }
    Store store(*this);
    carvePages(store.pageCount(), store.orderCount(), [&](uint32_t order, uint32_t page) {
        store.setState(page, freeHead(order));
        store.append(order, page);  // ascending, unlike what is pushed later
    });
    ORBEL_LOG_INFO(" malloc total(%zu) pagesize(%zu) blockCount (%d) manager memory size(%zu)\n",
                   static_cast<size_t>(mTotalSize), static_cast<size_t>(mChunkSize), mBlockCount,
                   static_cast<size_t>(mOrderCount + mBlockCount) * sizeof(Block));
    ORBEL_LOG_INFO(" address range(%p-%p)\n", static_cast<void*>(mBase),
                   static_cast<void*>(mBase + mTotalSize));
}

void* BuddyMemoryHandle::malloc(int& size) {
    const uint32_t order = buddyOrder(size, static_cast<uint32_t>(mChunkShift));
    uint32_t reached = 0;
    Store store(*this);
    int64_t page = -1;
    {
        Orbel::Guard<Orbel::CMutex> guard(mMutex);
        page = takePages(store, order, reached);
    }
    if (page < 0) {
        ORBEL_LOG_ERROR("No Free Space\n");
        return nullptr;
    }
    return mBlocks[page].address;
}

void BuddyMemoryHandle::free(void* block) {
    if (block == nullptr) {
        return;
    }
    const int64_t id = (static_cast<uint8_t*>(block) - mBase) >> mChunkShift;
    ORBEL_REQUIRE(id >= 0, "id >=0\n");
    // What is not even a block would be written outside of the arrays. Nothing more is checked: a
    // stale pointer into the region is the caller's error.
    ORBEL_ASSERT(id < mBlockCount);
    Store store(*this);
    Orbel::Guard<Orbel::CMutex> guard(mMutex);
    const int32_t state = mBlocks[id].order;
    ORBEL_ASSERT(state < 0);
    givePages(store, static_cast<uint32_t>(id), allocatedOrder(state));
}

bool BuddyMemoryHandle::inside(const void* address) const {
    const auto at = reinterpret_cast<uintptr_t>(address);
    const auto base = reinterpret_cast<uintptr_t>(mBase);
    return at >= base && at - base < static_cast<uintptr_t>(mTotalSize);
}

void* BuddyMemoryHandle::memcpy(void* to, const void* from, int size) {
    const auto sizeBytes = static_cast<unsigned long>(size);
    return inside(to) && inside(from) ? mOperator.memcpy(to, from, sizeBytes)
                                      : std::memcpy(to, from, sizeBytes);
}

uint32_t BuddyMemoryHandle::getMemorySize() {
    return static_cast<uint32_t>(mTotalSize);
}

uint32_t BuddyMemoryHandle::getFreeSize() {
    const Store store(*this);
    uint32_t chunks = 0;
    Orbel::Guard<Orbel::CMutex> guard(mMutex);
    for (uint32_t order = 0; order < store.orderCount(); ++order) {
        store.forEach(order, [&](const Block&) { chunks += uint32_t{1} << order; });
    }
    return chunks << mChunkShift;
}

void BuddyMemoryHandle::printNodes() {
    ORBEL_LOG_INFO(" packet dump: free list\n");
    const Store store(*this);
    Orbel::Guard<Orbel::CMutex> guard(mMutex);
    for (int32_t id = 0; id < mOrderCount; ++id) {
        const Block& head = mLists[id];
        ORBEL_LOG_INFO(" buffer list id:%d, order(%d) head(%p), head prev(%p) next(%p)\n", id,
                       head.order, static_cast<const void*>(&head), static_cast<void*>(head.prev),
                       static_cast<void*>(head.next));
        store.forEach(static_cast<uint32_t>(id), [&](const Block& block) {
            ORBEL_LOG_TRACE(
                "buffer list(%d)id: %d, realIdx(%d) self(%p) order(%d) prev(%p) next(%p)\n", id,
                block.index, static_cast<int>(&block - mBlocks), static_cast<const void*>(&block),
                block.order, static_cast<void*>(block.prev), static_cast<void*>(block.next));
        });
    }
}

}  // namespace Vantel::Memory
