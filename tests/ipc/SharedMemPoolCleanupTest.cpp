#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <vector>

#include "Vantel/Orbel/CTime.h"
#include "ipc/NodeDirectory.h"
#include "ipc/SharedMemPool.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/LogCapture.h"

namespace Vantel::Orbel {
namespace {

constexpr unsigned long kTimeoutUs = 5000000;
constexpr unsigned int kSlot = 3;
constexpr unsigned int kTag = 9;
constexpr unsigned long kWriter = 42;
constexpr unsigned long kChannel = 7;
constexpr std::optional<long> kNoTime = std::nullopt;

/// A node table in the hands of the test.
class FakeDirectory : public NodeDirectory {
public:
    bool checkNodeAlive(unsigned long nodeId) override { return mAlive.count(nodeId) > 0; }
    bool checkNodeAlive(unsigned int slot, unsigned int tag) override {
        return mWriterAlive && slot == kSlot && tag == kTag;
    }
    bool notifyWriter(unsigned long writerId, unsigned long channelId, unsigned long sequence,
                      BlockHeader*) override {
        EXPECT_EQ(writerId, kWriter);
        EXPECT_EQ(channelId, kChannel);
        mNotified.push_back(sequence);
        return mReachable;
    }

    std::set<unsigned long> mAlive;
    bool mWriterAlive = true;
    bool mReachable = true;
    std::vector<unsigned long> mNotified;
};

class SharedMemPoolCleanupTest : public testing::Test {
protected:
    SharedMemPoolCleanupTest() { EXPECT_TRUE(mPool.init(&mNodes)); }

    /// Takes a block and dates it back by `ageUs`; without one its time is 0.
    BlockHeader* writing(std::optional<long> ageUs) {
        BlockHeader* block = mPool.allocateBlock(kWriter, kSlot, kTag, kChannel);
        EXPECT_NE(block, nullptr);
        const auto now = static_cast<long>(CTime::getCurrentMicroSecond());
        block->status.timestamp.store(ageUs ? static_cast<uint64_t>(now - *ageUs) : 0);
        return block;
    }
    /// The same, published to `readers` with these masks.
    BlockHeader* ready(const std::vector<unsigned long>& readers, ReaderMasks masks,
                       std::optional<long> ageUs) {
        BlockHeader* block = writing(ageUs);
        for (size_t i = 0; i < readers.size(); ++i) {
            block->status.readerIds[i].store(readers[i]);
        }
        block->status.storeMasks(masks);
        StateWord word = block->status.stateWord();
        EXPECT_TRUE(block->status.exchangeState(word, word.next(BlockState::Ready)));
        return block;
    }
    /// Makes a block with `make` and runs a pass over it; again if the machine was so busy that the
    /// block may have crossed a limit before the pass came to it.
    template <class Make>
    BlockHeader* passed(Make&& make) {
        for (;;) {
            mNodes.mNotified.clear();
            const uint64_t start = CTime::getCurrentMicroSecond();
            BlockHeader* block = make();
            mBefore = block->status.stateWord().sequence;
            EXPECT_FALSE(mPool.checkAndCleanup(kTimeoutUs));
            if (CTime::getCurrentMicroSecond() - start < 50000) {
                return block;
            }
            mPool.releaseBlock(block);
        }
    }
    static BlockState state(const BlockHeader* block) { return block->status.stateWord().state; }

    OrbelTest::IpcCleanup mCleanup;
    OrbelTest::LogCapture mLog;
    FakeDirectory mNodes;
    SharedMemPool mPool{1, mCleanup.pool("orbel_pool"), 256, 8, 4};
    uint64_t mBefore = 0;  // the sequence of the block before the pass
};

TEST_F(SharedMemPoolCleanupTest, AWritingBlockGoesASecondAfterItsWriter) {
    const struct {
        const char* why;
        bool alive;
        std::optional<long> ageUs;
        bool freed;
    } cases[] = {
        {"however long, with a live writer", true, 3600000000, false},
        {"not looked at so young", false, 0, false},
        {"in its second of grace", false, 300000, false},
        {"past it", false, 1100000, true},
        {"without a time", false, kNoTime, true},
        {"from the future", false, -1000000000, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        mNodes.mWriterAlive = c.alive;
        BlockHeader* block = passed([&] { return writing(c.ageUs); });
        EXPECT_EQ(state(block) == BlockState::Free, c.freed);
        EXPECT_EQ(block->status.stateWord().sequence, mBefore + (c.freed ? 1 : 0));
        mPool.releaseBlock(block);
    }
    EXPECT_TRUE(mLog.has(
        " as writer is not alive in writing state, writerId=42, writerSlot=3, writerTag=9\n"));
    EXPECT_TRUE(mNodes.mNotified.empty());
}

TEST_F(SharedMemPoolCleanupTest, AReadyBlockWaitsForLiveReadersThatHoldIt) {
    enum Outcome { kStays, kFreed, kToldWriter };
    constexpr long kOld = 6000000;
    constexpr long kMiddle = 200000;
    const struct {
        const char* why;
        std::set<unsigned long> alive;
        bool writerAlive;
        bool reachable;
        std::vector<unsigned long> readers;
        ReaderMasks masks;
        std::optional<long> ageUs;
        ReaderMasks left;
        Outcome outcome;
    } cases[] = {
        {"live readers, in time", {1, 2}, true, true, {1, 2}, {3, 1}, kMiddle, {3, 1}, kStays},
        {"too young to be looked at", {}, false, true, {1}, {1, 1}, 0, {1, 1}, kStays},
        {"one dead, one alive", {2}, true, true, {1, 2}, {3, 1}, kMiddle, {2, 0}, kStays},
        {"all dead, writer told", {}, true, true, {1, 2}, {3, 1}, kMiddle, {0, 0}, kToldWriter},
        {"all dead, nobody to tell", {}, true, false, {1}, {1, 1}, kMiddle, {0, 0}, kFreed},
        {"dead with its claim alone", {}, true, true, {1}, {0, 1}, kMiddle, {0, 0}, kToldWriter},
        {"readers and writer dead", {}, false, true, {1}, {1, 0}, kMiddle, {0, 0}, kFreed},
        {"writer dead, a reader at it", {1}, false, true, {1}, {1, 1}, kOld, {1, 1}, kStays},
        {"silent for too long", {1, 2}, true, true, {1, 2}, {3, 2}, kOld, {2, 2}, kStays},
        {"all silent", {1, 2}, true, true, {1, 2}, {3, 0}, kOld, {0, 0}, kToldWriter},
        {"finish lost, not yet", {1}, true, true, {1}, {0, 0}, kMiddle, {0, 0}, kStays},
        {"finish lost", {1}, true, true, {1}, {0, 0}, kOld, {0, 0}, kToldWriter},
        {"finish undeliverable", {1}, true, false, {1}, {0, 0}, kOld, {0, 0}, kFreed},
        {"finish lost, writer dead", {1}, false, true, {1}, {0, 0}, kMiddle, {0, 0}, kFreed},
        {"no reader at all", {}, true, true, {}, {0, 0}, kOld, {0, 0}, kToldWriter},
        {"a gap ends the list", {1, 2}, true, true, {1, 0, 2}, {4, 0}, kOld, {4, 0}, kStays},
        {"without a time", {1}, true, true, {1}, {1, 0}, kNoTime, {0, 0}, kToldWriter},
        {"from the future", {1}, true, true, {1}, {1, 0}, -1000000000, {1, 0}, kStays},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        mNodes.mAlive = c.alive;
        mNodes.mWriterAlive = c.writerAlive;
        mNodes.mReachable = c.reachable;
        BlockHeader* block = passed([&] { return ready(c.readers, c.masks, c.ageUs); });

        EXPECT_EQ(block->status.readerMasks().pack(), c.left.pack());
        EXPECT_EQ(state(block), c.outcome == kFreed ? BlockState::Free : BlockState::Ready);
        const bool told = c.outcome == kToldWriter || (!c.reachable && c.outcome == kFreed);
        EXPECT_EQ(mNodes.mNotified, std::vector<unsigned long>(told ? 1 : 0, mBefore));
        if (c.outcome == kToldWriter) {
            mPool.checkAndCleanup(kTimeoutUs);
            EXPECT_EQ(mNodes.mNotified.size(), 1u) << "the next try in another time-out";
        }
        mPool.releaseBlock(block);
    }
}

TEST_F(SharedMemPoolCleanupTest, WhatIsNobodysStaysAndWithoutADomainNobodyIsAlive) {
    BlockHeader* anonymous = ready({}, {0, 0}, 6000000);
    anonymous->status.writerId.store(0);
    mPool.checkAndCleanup(kTimeoutUs);
    EXPECT_EQ(state(anonymous), BlockState::Ready);
    EXPECT_TRUE(mNodes.mNotified.empty());

    ASSERT_TRUE(mPool.init(nullptr));
    BlockHeader* filling = writing(2000000);
    BlockHeader* read = ready({1}, {1, 1}, 200000);
    BlockHeader* unknown = writing(kNoTime);
    const uint64_t forged = unknown->status.state.load() | 15;
    unknown->status.state.store(forged);
    mPool.checkAndCleanup(kTimeoutUs);
    mPool.diagnoseStatus(0);
    EXPECT_EQ(state(filling), BlockState::Free);
    EXPECT_EQ(state(read), BlockState::Free);
    EXPECT_EQ(unknown->status.state.load(), forged) << "a state that nobody made";
}

TEST_F(SharedMemPoolCleanupTest, TheDiagnosisCountsAndNamesWhatIsStuck) {
    writing(0);
    BlockHeader* stuck = writing(4500000);
    BlockHeader* block = ready({1, 2}, {3, 2}, 3600000);
    block->status.writerId.store(43);
    block->status.writeRef.store(2);
    block->status.readRef.store(1);
    mPool.diagnoseStatus(kWriter);
    for (const char* line : {"]=== Pool 1 Diagnosis (blockCount=4) ===\n",
                             "]  Block[1]: WRITING, writerId=42, writerSlot=3, writerTag=9, age=4.",
                             "]  Block[2]: READY, writerId=43, writerSlot=3, writerTag=9, age=3.",
                             "s, writeRef=2, readRef=1, readMask=0x3, claimMask=0x2\n",
                             "]Pool 1 Status: free=1, writing=2, ready=1",
                             "], myBlocks=2, otherWriterBlocks=1", "], timeoutBlocks=2\n",
                             "]WARNING: Pool 1 has 2 timeout blocks (>3s), may indicate "
                             "reader/writer stuck or dead"}) {
        EXPECT_EQ(mLog.count(line), 1) << line;
    }
    mPool.releaseBlock(stuck);
    mPool.releaseBlock(block);
    mPool.diagnoseStatus(0);
    EXPECT_EQ(mLog.count("myBlocks"), 1);
    EXPECT_EQ(mLog.count("WARNING"), 1);
}

}  // namespace
}  // namespace Vantel::Orbel
