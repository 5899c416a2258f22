#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Vantel/Orbel/SharedMemNode.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemPool.h"
#include "ipc/SharedMemReadChannelImpl.h"
#include "ipc/SharedMemReaderBuffer.h"
#include "ipc/SharedMemWriteChannelImpl.h"
#include "ipc/SharedMemWriterBuffer.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

namespace OrbelTest {

using namespace Vantel::Orbel;

using Sample = std::shared_ptr<SharedMemBuffer>;

/// The samples that a callback was given, kept until they are taken out.
class Inbox {
public:
    void put(Sample& sample) {
        std::lock_guard<std::mutex> guard(mMutex);
        mSamples.push_back(std::move(sample));
    }
    std::function<SharedMemReadChannel::Callback> callback() {
        return [this](Sample& sample) { put(sample); };
    }
    size_t size() const {
        std::lock_guard<std::mutex> guard(mMutex);
        return mSamples.size();
    }
    bool waitForSize(size_t wanted) const {
        return waitFor([&] { return size() >= wanted; });
    }
    std::vector<Sample> takeAll() {
        std::lock_guard<std::mutex> guard(mMutex);
        return std::exchange(mSamples, {});
    }

private:
    mutable std::mutex mMutex;
    std::vector<Sample> mSamples;
};

/// One domain with a pool of 8 blocks of 4096 bytes and one of 4 blocks of 65536, 64 extra bytes
/// each; a node "writer" with a write channel. Readers are nodes of the same process.
class ChannelFixture : public testing::Test {
protected:
    static constexpr unsigned int kSmallSize = 4096;
    static constexpr unsigned int kSmallCount = 8;
    static constexpr unsigned int kLargeSize = 65536;
    static constexpr unsigned int kLargeCount = 4;
    static constexpr unsigned int kExtraSize = 64;

    void SetUp() override {
        mDomain->setPoolConfigs({{"small", kSmallSize, kExtraSize, kSmallCount},
                                 {"large", kLargeSize, kExtraSize, kLargeCount}});
        ASSERT_TRUE(mDomain->init(Json::objectValue));
        mWriter = writer("writer");
        ASSERT_TRUE(
            mWriter->create({}, [this](unsigned char*, unsigned int, unsigned char*, unsigned int) {
                ++mReleased;
                return true;
            }));
    }
    void TearDown() override { mDomain->deInit(); }

    std::shared_ptr<SharedMemNode> node(const std::string& name) {
        auto made = mDomain->createNode(name);
        EXPECT_TRUE(made && made->init());
        return made;
    }
    std::shared_ptr<SharedMemWriteChannelImpl> writer(const std::string& nodeName) {
        auto channel = std::dynamic_pointer_cast<SharedMemWriteChannelImpl>(
            node(nodeName)->newWriteChannel(mChannelName));
        EXPECT_TRUE(channel && channel->init());
        return channel;
    }
    /// Attached, not open yet.
    std::shared_ptr<SharedMemReadChannelImpl> reader(const std::string& nodeName) {
        auto channel = std::dynamic_pointer_cast<SharedMemReadChannelImpl>(
            node(nodeName)->newReadChannel(mChannelName));
        EXPECT_TRUE(channel && channel->init());
        return channel;
    }
    std::shared_ptr<SharedMemReadChannelImpl> openReader(const std::string& nodeName,
                                                         Inbox& inbox) {
        auto channel = reader(nodeName);
        EXPECT_TRUE(channel->open(inbox.callback()));
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
    bool waitUntilAllFree() {
        return waitFor([this] { return busyBlocks() == 0; });
    }

    LogCapture mLog;
    IpcCleanup mCleanup;
    const std::string mDomainName = mCleanup.domain("channels");
    const std::string mChannelName = mCleanup.channel("samples");
    std::atomic<unsigned int> mReleased{0};
    std::shared_ptr<SharedDomainImpl> mDomain = std::make_shared<SharedDomainImpl>(mDomainName);
    std::shared_ptr<SharedMemWriteChannelImpl> mWriter;
};

}  // namespace OrbelTest
