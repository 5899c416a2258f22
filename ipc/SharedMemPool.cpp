#include "ipc/SharedMemPool.h"

#include <cstring>
#include <new>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "ipc/ProcessLock.h"
#include "ipc/SharedMemory.h"

namespace Vantel::Orbel {

namespace {

/// Marks a process-local in-flight word as set, whatever the sequence.
constexpr uint64_t kInFlight = uint64_t{1} << 63;

/// The one arbitration between all writers: who swaps the word has the block.
bool take(BlockStatus& status, unsigned int writerSlot, unsigned int writerTag) {
    StateWord word = status.stateWord();
    while (word.state == BlockState::Free) {
        if (status.exchangeState(word, word.nextWriting(writerSlot, writerTag))) {
            return true;
        }
    }
    return false;
}

/// Empties the fields of a block that take() has just won. All relaxed: the swap before keeps the
/// stores behind it, and nobody goes by these fields until the swap to ready publishes them. A
/// party of an earlier incarnation that is still at the masks tests the state word again itself.
void clear(BlockStatus& status, unsigned long writerId, unsigned long channelId) {
    constexpr auto relaxed = std::memory_order_relaxed;
    status.masks.store(ReaderMasks{}.pack(), relaxed);
    status.readRef.store(0, relaxed);
    status.writeRef.store(0, relaxed);
    status.channelId.store(channelId, relaxed);
    status.timestamp.store(0, relaxed);  // the time of the last owner says nothing about this one
    for (SharedField<uint64_t>& reader : status.readerIds) {
        reader.store(0, relaxed);
    }
    status.writerId.store(writerId, relaxed);
    status.timestamp.store(CTime::getCurrentMicroSecond(), relaxed);
}

}  // namespace

SharedMemPool::SharedMemPool(unsigned int poolId, const std::string& name, unsigned int blockSize,
                             unsigned int extraSize, unsigned int blockCount)
    : mPoolId(poolId),
      mName(name),
      mGeometry{blockSize, extraSize, blockCount},
      mMutex(name.c_str()) {}

SharedMemPool::~SharedMemPool() = default;

unsigned int SharedMemPool::calculatePoolSize() const {
    return static_cast<unsigned int>(mGeometry.segmentSize());
}

std::string SharedMemPool::generateShmName() const {
    return "/shmipc_pool_" + mName;
}

bool SharedMemPool::init(NodeDirectory* domain) {
    const ProcessLock lock(mMutex);
    mDomain = domain;
    mMemory = SharedMemory::create(generateShmName());
    if (!lock.held() || !mGeometry.valid() || !mMemory->openCreate(calculatePoolSize())) {
        ORBEL_LOG_ERROR("Failed to create pool shared memory: %s\n", generateShmName().c_str());
        return false;
    }
    mInFlight = std::make_unique<std::atomic<uint64_t>[]>(mGeometry.blockCount);
    if (!initPoolMemory() || !loadPoolMemory()) {
        ORBEL_LOG_ERROR("Failed to initialize pool memory\n");
        return false;
    }
    return true;
}

bool SharedMemPool::initPoolMemory() {
    // An object that stood here already is mapped at the size it has.
    if (mMemory->size() < calculatePoolSize()) {
        ORBEL_LOG_ERROR("Pool %s memory parameters mismatch\n", mName.c_str());
        return false;
    }
    auto* header = static_cast<PoolHeader*>(mMemory->baseAddress());
    const uint32_t magic = header->magic.load(std::memory_order_acquire);
    if (magic != 0) {
        if (magic == kPoolMagic && !matches(*header)) {
            ORBEL_LOG_ERROR("Pool %s memory parameters mismatch\n", mName.c_str());
            return false;
        }
        if (magic == kPoolMagic) {
            ORBEL_LOG_INFO(" Pool %s memory already initialized\n", mName.c_str());
        }
        return true;  // a foreign magic is for loadPoolMemory() to refuse
    }

    std::memset(static_cast<void*>(header), 0, sizeof *header);
    new (&header->lock) SHMMutex;
    header->blockSize = mGeometry.blockSize;
    header->extraSize = mGeometry.extraSize;
    header->blockCount = mGeometry.blockCount;
    header->headerStride = static_cast<uint32_t>(mGeometry.headerStride());
    for (uint32_t index = 0; index < mGeometry.blockCount; ++index) {
        BlockHeader* block = blockAt(header, index);
        std::memset(static_cast<void*>(block), 0, sizeof *block);  // the extra data stays as it is
        block->location.store(LocationWord{0, mPoolId, index}.pack());
        block->status.state.store(StateWord{BlockState::Free, 0, 0, 1}.pack());
    }
    header->dataOffset = static_cast<uint32_t>(mGeometry.dataOffset());
    // Last: who finds the magic finds all of the above. Release pairs with the acquire of whoever
    // compares it.
    header->magic.store(kPoolMagic, std::memory_order_release);
    ORBEL_LOG_INFO(" Pool %s memory initialized: blockSize=%u, extraSize=%u, blockCount=%u\n",
                   mName.c_str(), mGeometry.blockSize, mGeometry.extraSize, mGeometry.blockCount);
    return true;
}

bool SharedMemPool::matches(const PoolHeader& header) const {
    return header.blockSize == mGeometry.blockSize && header.extraSize == mGeometry.extraSize &&
           header.blockCount == mGeometry.blockCount &&
           header.headerStride == mGeometry.headerStride() &&
           header.dataOffset == mGeometry.dataOffset();
}

bool SharedMemPool::loadPoolMemory() {
    auto* header = static_cast<PoolHeader*>(mMemory->baseAddress());
    mHeader.store(header, std::memory_order_release);
    const uint32_t magic = header->magic.load(std::memory_order_acquire);
    if (magic != kPoolMagic) {
        ORBEL_LOG_ERROR("Invalid pool magic: 0x%x\n", magic);
        return false;  // attached all the same, within the mapping; the caller drops the pool
    }
    return true;
}

bool SharedMemPool::deInit() {
    const ProcessLock lock(mMutex);
    // The mapping itself goes with the pool object: another thread may be in allocateBlock().
    mHeader.store(nullptr, std::memory_order_release);
    return true;
}

BlockHeader* SharedMemPool::blockAt(PoolHeader* header, unsigned int index) const {
    return reinterpret_cast<BlockHeader*>(reinterpret_cast<unsigned char*>(header) +
                                          mGeometry.headerOffset(index));
}

BlockHeader* SharedMemPool::allocateBlock(unsigned long writerId, unsigned int writerSlot,
                                          unsigned int writerTag, unsigned long channelId) {
    PoolHeader* header = attached();
    const uint32_t count = mGeometry.blockCount;
    if (header == nullptr || count == 0) {
        return nullptr;
    }
    // A hint that writers overwrite without order, and out of a segment that strangers write to.
    const uint32_t hint = header->nextIndex.load(std::memory_order_relaxed);
    const uint32_t start = hint < count ? hint : hint % count;
    uint32_t index = start;
    do {
        BlockHeader* block = blockAt(header, index);
        const uint32_t following = index + 1 == count ? 0 : index + 1;
        if (take(block->status, writerSlot, writerTag)) {
            clear(block->status, writerId, channelId);
            header->nextIndex.store(following, std::memory_order_relaxed);
            return block;
        }
        index = following;
    } while (index != start);
    return nullptr;
}

bool SharedMemPool::releaseBlock(BlockHeader* block, unsigned long sequence) {
    if (attached() == nullptr || block == nullptr) {
        return false;
    }
    StateWord word = block->status.stateWord();
    const auto index = [block] { return static_cast<int>(block->locationWord().blockIndex); };
    const int poolId = static_cast<int>(mPoolId);
    if (word.state == BlockState::Free) {
        ORBEL_LOG_WARN(" poolId %d,block %d already freed\n", poolId, index());
        return true;
    }
    if (word.sequence != sequence) {
        ORBEL_LOG_ERROR("poolId %d block %d header sequence %llu not equal %llu\n", poolId, index(),
                        static_cast<unsigned long long>(word.sequence),
                        static_cast<unsigned long long>(sequence));
        return false;
    }
    const BlockState held = word.state;
    while (word.is(held, sequence)) {
        if (block->status.exchangeState(word, word.nextFree())) {
            return true;
        }
    }
    if (word.state == BlockState::Free) {
        return true;  // somebody else's release of the same incarnation was quicker
    }
    ORBEL_LOG_ERROR("Failed to set poolId %d block %d free, current state=%d\n", poolId, index(),
                    static_cast<int>(word.state));
    return false;
}

bool SharedMemPool::releaseBlock(BlockHeader* block) {
    return block != nullptr && releaseBlock(block, block->status.stateWord().sequence);
}

BlockHeader* SharedMemPool::getBlockHeader(unsigned int index) const {
    PoolHeader* header = attached();
    return header != nullptr && index < mGeometry.blockCount ? blockAt(header, index) : nullptr;
}

void* SharedMemPool::getBlockData(unsigned int index) const {
    PoolHeader* header = attached();
    if (header == nullptr || index >= mGeometry.blockCount) {
        return nullptr;
    }
    return reinterpret_cast<unsigned char*>(header) + mGeometry.dataOffset(index);
}

BlockHeader* SharedMemPool::getBlockHeaderByData(const void* data) const {
    PoolHeader* header = attached();
    if (header == nullptr || mGeometry.blockSize == 0) {
        return nullptr;
    }
    const uintptr_t base = reinterpret_cast<uintptr_t>(header) + mGeometry.dataOffset();
    const auto address = reinterpret_cast<uintptr_t>(data);
    const uintptr_t index = (address - base) / mGeometry.blockSize;
    return address >= base && index < mGeometry.blockCount
               ? blockAt(header, static_cast<uint32_t>(index))
               : nullptr;
}

bool SharedMemPool::containsBlock(const BlockHeader* block) const {
    PoolHeader* header = attached();
    if (header == nullptr) {
        return false;
    }
    const uintptr_t first = reinterpret_cast<uintptr_t>(header) + mGeometry.headerOffset(0);
    const auto address = reinterpret_cast<uintptr_t>(block);
    const uintptr_t distance = address - first;
    return address >= first && distance % mGeometry.headerStride() == 0 &&
           distance / mGeometry.headerStride() < mGeometry.blockCount;
}

void SharedMemPool::armInFlight(unsigned int index, unsigned long sequence) {
    if (index < mGeometry.blockCount && mInFlight != nullptr) {
        // Relaxed: a finish comes after the block's swap to ready, which comes after this.
        mInFlight[index].store(sequence | kInFlight, std::memory_order_relaxed);
    }
}

bool SharedMemPool::takeInFlight(unsigned int index, unsigned long sequence) {
    if (index >= mGeometry.blockCount || mInFlight == nullptr) {
        return false;
    }
    uint64_t armed = sequence | kInFlight;
    // Relaxed: only who is first is decided here; what readers did is ordered by the masks.
    return mInFlight[index].compare_exchange_strong(armed, 0, std::memory_order_relaxed);
}

}  // namespace Vantel::Orbel
