#include "ipc/SharedMemWriteChannelImpl.h"

#include <cerrno>
#include <utility>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "ipc/PipeMessage.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemPool.h"
#include "ipc/SharedMemWriterBuffer.h"

namespace Vantel::Orbel {

SharedMemWriteChannelImpl::SharedMemWriteChannelImpl(const std::string& name,
                                                     std::weak_ptr<SharedMemNodeImpl> node)
    : SharedMemChannel(name, std::move(node)) {}

SharedMemWriteChannelImpl::~SharedMemWriteChannelImpl() {
    SharedMemWriteChannelImpl::close();
}

bool SharedMemWriteChannelImpl::init() {
    if (!createStatusMemory()) {
        return false;
    }
    checkAndCleanupBuffers();
    return true;
}

bool SharedMemWriteChannelImpl::create(const Options& options,
                                       const std::function<ReleaseCallback>& callback) {
    const auto domain = mDomain.lock();
    if (!domain) {
        return false;
    }
    if (options.blockSize != 0 && options.blockCount != 0 &&
        !domain->createPool(mName + "_data", options.blockSize, options.extraSize,
                            options.blockCount)) {
        ORBEL_LOG_ERROR("writer channel %s create pool failed\n", mName.c_str());
    }
    return open(callback);
}

bool SharedMemWriteChannelImpl::open(const std::function<ReleaseCallback>& callback) {
    if (status() == nullptr) {
        ORBEL_LOG_ERROR("writer channel %s status shared memory is null\n", mName.c_str());
        return false;
    }
    storeCallback(callback);
    if (!registerWriter()) {
        ORBEL_LOG_ERROR("register writer %s failed\n", mName.c_str());
        return false;
    }
    return true;
}

void SharedMemWriteChannelImpl::storeCallback(const std::function<ReleaseCallback>& callback) {
    std::lock_guard<std::mutex> guard(mCallbackMutex);
    const std::function<ReleaseCallback>* stored = nullptr;
    if (callback) {
        mCallbacks.push_back(std::make_unique<const std::function<ReleaseCallback>>(callback));
        stored = mCallbacks.back().get();
    }
    // Releases what it points at to the acquire in runReleaseCallback().
    mReleaseCallback.store(stored, std::memory_order_release);
}

bool SharedMemWriteChannelImpl::close() {
    if (status() != nullptr) {
        unregisterWriter(mNodeId);
    }
    return true;
}

unsigned int SharedMemWriteChannelImpl::getReaderCount() const {
    const ChannelStatus* const table = status();
    unsigned int count = 0;
    for (unsigned int i = 0; table != nullptr && i < kMaxReaders; ++i) {
        count += table->readerIds[i].load(std::memory_order_relaxed) != 0 ? 1 : 0;
    }
    return count;
}

std::shared_ptr<SharedMemBuffer> SharedMemWriteChannelImpl::allocate(unsigned int size,
                                                                     unsigned int extraSize) {
    const auto domain = mDomain.lock();
    if (!domain) {
        errno = ENODEV;
        return nullptr;
    }
    errno = 0;
    const auto pool = domain->findPoolBySize(size, extraSize);
    if (!pool) {
        // In spite of the wording nothing is created here.
        ORBEL_LOG_ERROR("Failed to find or create pool for channel %s, size=%u, extraSize=%u\n",
                        mName.c_str(), size, extraSize);
        errno = ENOMEM;
        return nullptr;
    }
    BlockHeader* const header = pool->allocateBlock(mNodeId, mWriterSlot, mWriterTag, mChannelId);
    if (header == nullptr) {
        errno = EAGAIN;
        return nullptr;
    }
    void* const data = pool->getBlockData(header->locationWord().blockIndex);
    if (data == nullptr) {  // the domain is being left at this moment
        errno = ENODEV;
        return nullptr;
    }
    // The timestamp is that of allocateBlock(), an instant ago.
    return wrap(*pool, header, data, size, extraSize, false);
}

std::shared_ptr<SharedMemBuffer> SharedMemWriteChannelImpl::allocate(void* data, unsigned int size,
                                                                     unsigned int extraSize) {
    // The log may change errno, so it is set after it.
    const auto refuse = [](int error) {
        errno = error;
        return nullptr;
    };
    if (data == nullptr) {
        return refuse(EINVAL);
    }
    const auto domain = mDomain.lock();
    if (!domain) {
        return refuse(ENODEV);
    }
    std::shared_ptr<SharedMemPool> pool;
    BlockHeader* header = nullptr;
    for (unsigned int id = 0; id < kMaxPools && header == nullptr; ++id) {
        pool = domain->getPool(id);
        header = pool ? pool->getBlockHeaderByData(data) : nullptr;
    }
    if (header == nullptr) {
        ORBEL_LOG_ERROR("Data pointer does not correspond to any block in pool\n");
        return refuse(EINVAL);
    }
    if (size > pool->blockSize() || extraSize > pool->extraSize()) {
        ORBEL_LOG_ERROR("Requested size exceeds pool block size, size = %d, poolBlockSize = %d\n",
                        static_cast<int>(size), static_cast<int>(pool->blockSize()));
        return refuse(ENOBUFS);
    }
    BlockStatus& status = header->status;
    const auto block = static_cast<int>(header->locationWord().blockIndex);
    if (status.stateWord().state == BlockState::Free || status.writeRef.load() == 0) {
        ORBEL_LOG_ERROR("Block %d is free\n", block);
        return refuse(EINVAL);
    }
    if (status.writerId.load() != mNodeId) {
        ORBEL_LOG_ERROR("Block %d writerId mismatch\n", block);
        return refuse(EINVAL);
    }
    // Joins the holds that there are; the last of them may go at this moment.
    if (!status.writeRef.raiseUnlessZero()) {
        ORBEL_LOG_ERROR("Block %d is free\n", block);
        return refuse(EINVAL);
    }
    errno = 0;
    status.timestamp.store(CTime::getCurrentMicroSecond(), std::memory_order_relaxed);
    return wrap(*pool, header, data, size, extraSize, true);
}

std::shared_ptr<SharedMemBuffer> SharedMemWriteChannelImpl::wrap(const SharedMemPool& pool,
                                                                 BlockHeader* header, void* data,
                                                                 unsigned int size,
                                                                 unsigned int extraSize,
                                                                 bool held) {
    header->size.store(size, std::memory_order_relaxed);
    header->extraDataSize.store(extraSize, std::memory_order_relaxed);
    auto buffer = std::make_shared<SharedMemWriterBuffer>(mChannelId, header, data, held);
    buffer->attachPool(pool.memory(), pool.blockSize(), pool.extraSize());
    buffer->setFinish(weak_from_this());
    return buffer;
}

// The way of a sample out: commit, tell the readers, and the way back if nobody could be told.

bool SharedMemWriteChannelImpl::commit(std::shared_ptr<SharedMemBuffer>& buffer) {
    auto* const sample = dynamic_cast<SharedMemWriterBuffer*>(buffer.get());
    if (sample == nullptr || sample->header() == nullptr) {
        return false;
    }
    BlockHeader* const header = sample->header();
    BlockStatus& status = header->status;
    // First of all: in a block that is in flight already, readers hold claims that nothing below
    // may touch.
    const StateWord word = status.stateWord();
    if (!isWriting(*sample, word)) {
        return refuseCommit(*header, word);
    }
    const unsigned int readers = copyReaders(status);
    status.timestamp.store(CTime::getCurrentMicroSecond(), std::memory_order_relaxed);
    if (readers == 0) {
        return true;
    }
    const auto domain = mDomain.lock();
    const auto pool = domain ? domain->getPool(header->locationWord().poolId) : nullptr;
    if (!pool) {
        return true;  // nobody can be told
    }
    status.writeRef.fetchAdd(1);  // of the block in flight
    status.storeMasks({(1u << readers) - 1, 0});
    if (!publish(*sample, *pool, word)) {
        return false;
    }
    if (!notifyAllReaders(header, sample->fd())) {
        takeBack(*sample, *pool);
    }
    return true;
}

bool SharedMemWriteChannelImpl::isWriting(const SharedMemWriterBuffer& sample,
                                          const StateWord& word) {
    return word.state == BlockState::Writing && sample.owns(word);
}

bool SharedMemWriteChannelImpl::refuseCommit(const BlockHeader& header, const StateWord& word) {
    ORBEL_LOG_ERROR(
        "SharedMemWriteChannel block index %d, set ready failed state %d, sequence %ld\n",
        static_cast<int>(header.locationWord().blockIndex), static_cast<int>(word.state),
        static_cast<long>(word.sequence));
    return false;
}

// The table is read without its lock: who registers just now may or may not get this sample.
unsigned int SharedMemWriteChannelImpl::copyReaders(BlockStatus& block) const {
    const ChannelStatus* const table = status();
    unsigned int count = 0;
    for (unsigned int i = 0; table != nullptr && i < kMaxReaders; ++i) {
        const uint64_t reader = table->readerIds[i].load(std::memory_order_relaxed);
        if (reader != 0) {
            block.readerIds[count++].store(reader, std::memory_order_relaxed);
        }
    }
    for (unsigned int i = count; i < kMaxReaders; ++i) {
        block.readerIds[i].store(0, std::memory_order_relaxed);
    }
    return count;
}

// A reader that reads ready goes by masks and holds, so they are complete before. The hold of the
// flight is armed before as well, since the finish may come at once.
bool SharedMemWriteChannelImpl::publish(SharedMemWriterBuffer& sample, SharedMemPool& pool,
                                        StateWord word) {
    BlockHeader* const header = sample.header();
    BlockStatus& status = header->status;
    while (isWriting(sample, word)) {
        const StateWord ready = word.next(BlockState::Ready);
        pool.armInFlight(header->locationWord().blockIndex, ready.sequence);
        if (status.exchangeState(word, ready)) {
            status.clearClaims();
            sample.setSequence(ready.sequence);
            return true;
        }
    }
    // Another handle was faster, and its readers go by the masks; or the master took the block
    // away, and nothing in it is ours.
    if (sample.owns(word)) {
        status.writeRef.lower();
    }
    return refuseCommit(*header, word);
}

bool SharedMemWriteChannelImpl::notifyAllReaders(BlockHeader* header, int fd) {
    const auto node = mNode.lock();
    if (!node) {
        return false;
    }
    BlockStatus& status = header->status;
    PipeMessage message = PipeMessage::make(PipeAction::DataReady, header->locationWord(),
                                            mChannelId, mNodeId, status.stateWord().sequence, fd);
    bool told = false;
    bool nobodyLeft = false;
    for (unsigned int reader = 0; reader < kMaxReaders; ++reader) {
        const uint64_t id = status.readerIds[reader].load(std::memory_order_relaxed);
        if (id == 0) {
            continue;
        }
        if (node->notifyReader(id, message)) {
            told = true;
        } else {
            nobodyLeft = status.dropUntold(reader);
        }
    }
    if (told && nobodyLeft) {
        // The others had finished before, none of them as the last: so nobody sends a finish.
        message = PipeMessage::make(PipeAction::DataFinish, header->locationWord(), mChannelId,
                                    mNodeId, message.sequence);
        handleDataFinish(message);
    }
    return told;
}

void SharedMemWriteChannelImpl::takeBack(SharedMemWriterBuffer& sample, SharedMemPool& pool) {
    BlockHeader* const header = sample.header();
    BlockStatus& status = header->status;
    if (pool.takeInFlight(header->locationWord().blockIndex, sample.sequence())) {
        status.writeRef.lower();  // the handle's own hold stays
    }
    status.storeMasks({});
    StateWord word = status.stateWord();
    while (word.state == BlockState::Ready && sample.owns(word)) {
        const StateWord writing = word.next(BlockState::Writing);
        if (status.exchangeState(word, writing)) {
            status.clearClaims();
            sample.setSequence(writing.sequence);
            return;
        }
    }
    ORBEL_LOG_WARN(" SharedMemWriteChannel block index %d restore writing failed, state %d\n",
                   static_cast<int>(header->locationWord().blockIndex),
                   static_cast<int>(word.state));
}

}  // namespace Vantel::Orbel
