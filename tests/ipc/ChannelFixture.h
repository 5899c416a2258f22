#pragma once

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <utility>

#include "ipc/SharedMemReadChannelImpl.h"
#include "ipc/SharedMemReaderBuffer.h"
#include "ipc/SharedMemWriteChannelImpl.h"
#include "tests/ipc/ConnectTo.h"
#include "tests/ipc/DomainFixture.h"

namespace OrbelTest {

using Sample = std::shared_ptr<SharedMemBuffer>;

/// The samples that a callback was given, kept until they are taken out.
class Inbox {
public:
    std::function<SharedMemReadChannel::Callback> callback() {
        return [this](Sample& sample) {
            std::lock_guard<std::mutex> guard(mMutex);
            mSamples.push_back(std::move(sample));
        };
    }
    size_t size() const {
        std::lock_guard<std::mutex> guard(mMutex);
        return mSamples.size();
    }
    /// Waits until there are `wanted`, and takes all that there are.
    std::vector<Sample> take(size_t wanted) {
        EXPECT_TRUE(waitFor([&] { return size() >= wanted; })) << "got " << size();
        std::lock_guard<std::mutex> guard(mMutex);
        EXPECT_EQ(mSamples.size(), wanted);
        return std::exchange(mSamples, {});
    }

private:
    mutable std::mutex mMutex;
    std::vector<Sample> mSamples;
};

/// The domain of this process, the master's. Counts how often the master tells a writer of blocks
/// that their readers have left: only where a finish was lost, or a reader was.
class WatchedDomain : public SharedDomainImpl {
public:
    using SharedDomainImpl::SharedDomainImpl;
    bool notifyWriter(unsigned long writerId, unsigned long channelId, unsigned long sequence,
                      BlockHeader* block) override {
        ++mRepeats;
        return SharedDomainImpl::notifyWriter(writerId, channelId, sequence, block);
    }
    std::atomic<int> mRepeats{0};
};

/// A domain with a pool of 8 blocks of 4096 bytes and one of 4 blocks of 65536, 64 extra bytes
/// each; a node "writer" with a write channel. Readers are nodes of the same process.
class ChannelFixture : public DomainFixture {
protected:
    static constexpr unsigned int kSmallSize = 4096;
    static constexpr unsigned int kSmallCount = 8;
    static constexpr unsigned int kLargeSize = 65536;
    static constexpr unsigned int kExtraSize = 64;

    void SetUp() override {
        mDomain = join(
            std::make_shared<WatchedDomain>(mDomainName),
            {{"small", kSmallSize, kExtraSize, kSmallCount}, {"large", kLargeSize, kExtraSize, 4}});
        mWriter = writer("writer");
        ASSERT_TRUE(
            mWriter->create({}, [this](unsigned char*, unsigned int, unsigned char*, unsigned int) {
                ++mReleased;
                return true;
            }));
    }

    /// A node of this process, connected to.
    std::shared_ptr<SharedMemNodeImpl> node(const std::string& name) {
        auto made = aliveNode(*mDomain, name);
        connectTo(*mDomain, made->nodeId());
        return made;
    }
    /// Attached, not open yet; like all channels below, on a node of that name.
    std::shared_ptr<SharedMemWriteChannelImpl> writer(const std::string& nodeName) {
        auto channel = std::dynamic_pointer_cast<SharedMemWriteChannelImpl>(
            node(nodeName)->newWriteChannel(mChannelName));
        EXPECT_TRUE(channel && channel->init());
        return channel;
    }
    std::shared_ptr<SharedMemReadChannelImpl> reader(const std::string& nodeName) {
        auto channel = std::dynamic_pointer_cast<SharedMemReadChannelImpl>(
            node(nodeName)->newReadChannel(mChannelName));
        EXPECT_TRUE(channel && channel->init());
        return channel;
    }
    /// Its samples go to mInbox.
    std::shared_ptr<SharedMemReadChannelImpl> openReader(const std::string& nodeName) {
        auto channel = reader(nodeName);
        EXPECT_TRUE(channel->open(mInbox.callback()));
        return channel;
    }
    Sample commit(const std::string& text) {
        Sample sample = mWriter->allocate(static_cast<unsigned int>(text.size()), 0);
        EXPECT_TRUE(sample);
        std::memcpy(sample->data(), text.data(), text.size());
        EXPECT_TRUE(mWriter->commit(sample));
        return sample;
    }

    static BlockHeader& header(const Sample& sample) {
        return *static_cast<SharedMemBaseBuffer&>(*sample).header();
    }
    static BlockStatus& status(const Sample& sample) { return header(sample).status; }
    static std::string text(const Sample& sample) {
        return std::string(static_cast<const char*>(sample->data()), sample->size());
    }
    /// The message about a sample in flight.
    PipeMessage messageOf(PipeAction action, const Sample& sample) const {
        const BlockStatus& block = status(sample);
        return PipeMessage::make(action, header(sample).locationWord(), mWriter->channelId(),
                                 block.writerId.load(), block.stateWord().sequence);
    }

    unsigned int busyBlocks() {
        unsigned int busy = 0;
        for (unsigned int id = 0; id < kMaxPools; ++id) {
            const auto pool = mDomain->getPool(id);
            for (unsigned int i = 0; pool && i < pool->blockCount(); ++i) {
                const auto state = pool->getBlockHeader(i)->status.stateWord().state;
                busy += state != BlockState::Free ? 1 : 0;
            }
        }
        return busy;
    }
    /// Waits until every block has come back by the finish of its readers. One that was lost is
    /// made good by the master five seconds later, so its help is a failure here.
    testing::AssertionResult allComeBack() {
        const bool free = waitFor([this] { return busyBlocks() == 0 || mDomain->mRepeats > 0; });
        if (mDomain->mRepeats > 0) {
            return testing::AssertionFailure() << "a finish was lost, the master had to repeat it";
        }
        return free ? testing::AssertionSuccess()
                    : testing::AssertionFailure() << busyBlocks() << " are out";
    }
    /// The same where somebody died or was silent, so that the master has to settle the blocks.
    bool allAreSettled() {
        return waitFor([this] { return busyBlocks() == 0; });
    }
    /// Takes the block from its parties, as the master does with the dead, and gives it to `next`,
    /// whose samples are returned.
    std::vector<Sample> takeAway(BlockHeader& block, SharedMemWriteChannelImpl& next) {
        block.status.storeMasks({});
        block.status.readRef.store(0);
        EXPECT_TRUE(mDomain->getPool(block.locationWord().poolId)->releaseBlock(&block));
        std::vector<Sample> all;  // this block too: it is among the last free ones
        while (Sample sample = next.allocate(1, 0)) {
            all.push_back(sample);
        }
        return all;
    }

    const std::string mChannelName = mCleanup.channel("samples");
    std::atomic<unsigned int> mReleased{0};
    Inbox mInbox;
    std::shared_ptr<WatchedDomain> mDomain;
    std::shared_ptr<SharedMemWriteChannelImpl> mWriter;
};

}  // namespace OrbelTest
