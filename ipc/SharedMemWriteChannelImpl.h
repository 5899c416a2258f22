#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Vantel/Orbel/SharedMemWriteChannel.h"
#include "ipc/SharedMemChannel.h"

namespace Vantel::Orbel {

struct PipeMessage;
class SharedDomainImpl;
class SharedMemNodeImpl;
class SharedMemPool;
class SharedMemWriterBuffer;

/// The writing end of a channel.
///
/// Threads: allocate(), commit() and the end of buffers anywhere; handleDataFinish() and
/// checkAndCleanupBuffers() on the domain's loop. They meet in the atomic fields of the block only:
/// the one that takes `writeRef` to 0 gives the block back.
class SharedMemWriteChannelImpl : public SharedMemWriteChannel,
                                  public SharedMemChannel,
                                  public std::enable_shared_from_this<SharedMemWriteChannelImpl> {
public:
    /// `node` must be live.
    SharedMemWriteChannelImpl(const std::string& name, std::weak_ptr<SharedMemNodeImpl> node);
    ~SharedMemWriteChannelImpl() override;

    bool init() override;
    bool close() override;
    unsigned long channelId() const override { return mChannelId; }
    bool commit(std::shared_ptr<SharedMemBuffer>& buffer) override;
    bool create(const Options& options, const std::function<ReleaseCallback>& callback) override;
    std::shared_ptr<SharedMemBuffer> allocate(unsigned int size, unsigned int extraSize) override;
    std::shared_ptr<SharedMemBuffer> allocate(void* data, unsigned int size,
                                              unsigned int extraSize) override;
    unsigned int getReaderCount() const override;

    /// Stores the callback and registers as writer. False before init() or with 8 live writers.
    bool open(const std::function<ReleaseCallback>& callback);

    /// The readers of a block are done. True as well if the message is stale.
    bool handleDataFinish(const PipeMessage& message);

    /// The last reference of a block of this node is gone: runs the release callback and frees it.
    void releaseBuffer(BlockHeader* header, unsigned char* data, unsigned long sequence);

    /// Tells every reader of a ready block; false if none could be told.
    bool notifyAllReaders(BlockHeader* header, int fd);

    /// Drops nodes that are no longer alive from the channel's tables.
    void checkAndCleanupBuffers();

    /// Empty, and must stay so: blocks are cleaned by the master's pass over the pools, and a
    /// second agent would race with it.
    void checkBuffers() {}

    /// Frees `header` if it is being written by a node that is gone.
    void checkWritingBuffer(BlockHeader* header, const std::shared_ptr<SharedDomainImpl>& domain);

    /// Takes dead readers, and after 3 seconds silent ones, off a ready block; settles it when
    /// nobody is left.
    void checkReadyBuffer(BlockHeader* header, const std::shared_ptr<SharedDomainImpl>& domain);

private:
    std::shared_ptr<SharedMemBuffer> wrap(const SharedMemPool& pool, BlockHeader* header,
                                          void* data, unsigned int size, unsigned int extraSize,
                                          bool held);

    static bool isWriting(const SharedMemWriterBuffer& sample, const StateWord& word);
    static bool refuseCommit(const BlockHeader& header, const StateWord& word);
    /// Enters the readers of this moment in the block, without gaps, zeros behind; their number.
    unsigned int copyReaders(BlockStatus& block) const;
    /// Makes a block whose masks and holds are complete ready; `word` is what it was found with.
    bool publish(SharedMemWriterBuffer& sample, SharedMemPool& pool, StateWord word);
    /// Nobody could be told: the block is the writer's again, as before the commit.
    void takeBack(SharedMemWriterBuffer& sample, SharedMemPool& pool);

    void storeCallback(const std::function<ReleaseCallback>& callback);
    void runReleaseCallback(BlockHeader& header, unsigned char* data);
    /// What the pool would do: the domain was left, but the block lives on in the segment.
    static void freeByHand(BlockHeader& header, unsigned long sequence);

    /// The last of mCallbacks, or null. What it has pointed at once stays until the channel dies,
    /// so that giving a block back takes no lock.
    std::atomic<const std::function<ReleaseCallback>*> mReleaseCallback{nullptr};
    std::mutex mCallbackMutex;  ///< over mCallbacks
    std::vector<std::unique_ptr<const std::function<ReleaseCallback>>> mCallbacks;
};

}  // namespace Vantel::Orbel
