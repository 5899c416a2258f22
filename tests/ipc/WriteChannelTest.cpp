#include <cerrno>

#include "ipc/PipeMessage.h"
#include "tests/ipc/ChannelFixture.h"

namespace OrbelTest {
namespace {

class WriteChannelTest : public ChannelFixture {
protected:
    static PipeMessage finishOf(const Sample& sample, unsigned long channelId) {
        const BlockStatus& block = status(sample);
        return PipeMessage::make(PipeAction::DataFinish, header(sample).locationWord(), channelId,
                                 block.writerId.load(), block.stateWord().sequence);
    }
};

TEST_F(WriteChannelTest, CommitWithoutReadersLeavesTheBlockToItsHolder) {
    struct {
        unsigned char* data = nullptr;
        unsigned int size = 0;
        unsigned char* extra = nullptr;
        unsigned int extraSize = 0;
    } released;
    const auto channel = writer("second");
    ASSERT_TRUE(channel->create({}, [&](unsigned char* data, unsigned int size,
                                        unsigned char* extra, unsigned int extraSize) {
        released = {data, size, extra, extraSize};
        return false;  // has no effect
    }));
    Sample sample = channel->allocate(100, 16);
    ASSERT_TRUE(sample);
    BlockHeader& block = header(sample);
    auto* const data = static_cast<unsigned char*>(sample->data());
    auto* const extra = static_cast<unsigned char*>(sample->extraData());
    const uint64_t sequence = block.status.stateWord().sequence;
    EXPECT_TRUE(channel->commit(sample));
    EXPECT_TRUE(channel->commit(sample)) << "nothing is in flight";
    EXPECT_TRUE(block.status.stateWord().is(BlockState::Writing, sequence));
    EXPECT_EQ(block.status.writeRef.load(), 1u);
    EXPECT_EQ(released.data, nullptr);
    sample.reset();
    EXPECT_TRUE(block.status.stateWord().is(BlockState::Free, sequence + 1));
    EXPECT_EQ(released.data, data);
    EXPECT_EQ(released.size, 100u);
    EXPECT_EQ(released.extra, extra);
    EXPECT_EQ(released.extraSize, 16u);
}

TEST_F(WriteChannelTest, AllocateTakesTheTightestPoolAndSaysWhyItCannot) {
    EXPECT_EQ(mWriter->allocate(0, 0)->capacity(), kSmallSize);
    EXPECT_EQ(mWriter->allocate(kSmallSize, kExtraSize)->capacity(), kSmallSize);
    EXPECT_EQ(mWriter->allocate(kSmallSize + 1, 0)->capacity(), kLargeSize);
    EXPECT_EQ(mWriter->allocate(kLargeSize + 1, 0), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(mWriter->allocate(1, kExtraSize + 1), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(mLog.count("Failed to find or create pool for channel"), 2);

    std::vector<Sample> all;
    for (unsigned int i = 0; i < kSmallCount; ++i) {
        all.push_back(mWriter->allocate(1, 0));
        ASSERT_TRUE(all.back());
        EXPECT_EQ(errno, 0);
    }
    const size_t lines = mLog.lines().size();
    EXPECT_EQ(mWriter->allocate(1, 0), nullptr) << "a larger pool is no way out";
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(mLog.lines().size(), lines) << "a full pool is not logged";
    all.pop_back();
    EXPECT_TRUE(mWriter->allocate(1, 0));
}

TEST_F(WriteChannelTest, AllocateByAddressRefusesWhatThisNodeDoesNotHold) {
    Sample own = mWriter->allocate(10, 0);
    const auto stranger = writer("stranger");
    Sample foreign = stranger->allocate(10, 0);
    Sample freed = mWriter->allocate(10, 0);
    void* const freedData = freed->data();
    freed.reset();
    unsigned char outside = 0;
    const struct {
        const char* why;
        void* data;
        unsigned int size;
        unsigned int extraSize;
        int error;
        const char* line;
    } cases[] = {
        {"null", nullptr, 1, 0, EINVAL, nullptr},
        {"no block", &outside, 1, 0, EINVAL, "Data pointer does not correspond to any block"},
        {"free block", freedData, 1, 0, EINVAL, " is free"},
        {"other node", foreign->data(), 1, 0, EINVAL, " writerId mismatch"},
        {"size", own->data(), kSmallSize + 1, 0, ENOBUFS, "Requested size exceeds pool block size"},
        {"extra", own->data(), 1, kExtraSize + 1, ENOBUFS, "size = 1, poolBlockSize = 4096"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        errno = 0;
        const int before = c.line == nullptr ? 0 : mLog.count(c.line);
        EXPECT_EQ(mWriter->allocate(c.data, c.size, c.extraSize), nullptr);
        EXPECT_EQ(errno, c.error);
        EXPECT_TRUE(c.line == nullptr || mLog.count(c.line) == before + 1);
    }
    EXPECT_EQ(status(own).writeRef.load(), 1u);
    EXPECT_EQ(header(own).size.load(), 10u);
}

TEST_F(WriteChannelTest, AllocateWithoutDomainIsNoDevice) {
    const std::string name = mCleanup.domain("gone");
    auto domain = std::make_shared<SharedDomainImpl>(name);
    ASSERT_TRUE(domain->init(Json::objectValue));
    auto node = domain->createNode("writer");
    ASSERT_TRUE(node->init());
    const auto channel = node->newWriteChannel(mCleanup.channel("gone"));
    ASSERT_TRUE(channel->init());
    domain.reset();
    EXPECT_EQ(channel->allocate(1, 0), nullptr);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(channel->allocate(&errno, 1, 0), nullptr);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_FALSE(channel->create({}, {}));
}

TEST_F(WriteChannelTest, AHandleFromAnAddressHoldsTheBlockToo) {
    Sample first = mWriter->allocate(10, 0);
    BlockHeader& block = header(first);
    unsigned char* const middle = static_cast<unsigned char*>(first->data()) + 1000;
    Sample second = mWriter->allocate(middle, 20, 8);
    ASSERT_TRUE(second);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(second->data(), middle);
    EXPECT_EQ(second->blockIndex(), first->blockIndex());
    EXPECT_EQ(first->size(), 20u);
    EXPECT_EQ(first->extraDataSize(), 8u);
    EXPECT_EQ(block.status.writeRef.load(), 2u);
    first.reset();
    EXPECT_EQ(block.status.stateWord().state, BlockState::Writing);
    second.reset();
    EXPECT_EQ(block.status.stateWord().state, BlockState::Free);
    EXPECT_EQ(mReleased, 1u);
}

TEST_F(WriteChannelTest, ASecondCommitFailsAndTakesNothingFromTheReader) {
    Inbox inbox;
    openReader("reader", inbox);
    Sample sample = commit("once");
    ASSERT_TRUE(inbox.waitForSize(1));
    BlockStatus& block = status(sample);
    const uint64_t state = block.state.load();
    EXPECT_FALSE(mWriter->commit(sample));
    EXPECT_TRUE(mLog.has("set ready failed state 2, sequence "));
    EXPECT_EQ(block.state.load(), state);
    EXPECT_EQ(block.readMask(), 1u);
    EXPECT_EQ(block.claimMask(), 1u);
    EXPECT_EQ(block.writeRef.load(), 2u);
    Sample none;
    EXPECT_FALSE(mWriter->commit(none));
    EXPECT_FALSE(mWriter->commit(inbox.takeAll().at(0))) << "a reader's buffer";
    sample.reset();
    EXPECT_TRUE(waitUntilAllFree());
}

// commit() moves only its own handle's sequence on; whichever handle drops last frees the block.
TEST_F(WriteChannelTest, TheLastHandleFreesTheBlockWhoeverCommittedIt) {
    Inbox inbox;
    openReader("reader", inbox);
    for (const bool committerDropsLast : {false, true}) {
        SCOPED_TRACE(committerDropsLast);
        Sample committer = mWriter->allocate(10, 0);
        Sample other = mWriter->allocate(committer->data(), 10, 0);
        ASSERT_TRUE(other);
        ASSERT_TRUE(mWriter->commit(committer));
        ASSERT_TRUE(inbox.waitForSize(1));
        BlockStatus& block = status(other);
        EXPECT_EQ(block.writeRef.load(), 3u);
        inbox.takeAll();
        ASSERT_TRUE(waitFor([&] { return block.writeRef.load() == 2; }));
        (committerDropsLast ? other : committer).reset();
        EXPECT_EQ(block.stateWord().state, BlockState::Ready);
        (committerDropsLast ? committer : other).reset();
        EXPECT_EQ(block.stateWord().state, BlockState::Free);
    }
    EXPECT_EQ(mReleased, 2u);
    EXPECT_FALSE(mLog.has("pending refs"));
}

TEST_F(WriteChannelTest, ARepeatedFinishTakesNothingFromTheHandle) {
    Inbox inbox;
    openReader("reader", inbox);
    Sample sample = commit("held by the writer");
    ASSERT_TRUE(inbox.waitForSize(1));
    PipeMessage finish = finishOf(sample, mWriter->channelId());
    EXPECT_FALSE(mWriter->handleDataFinish(finish)) << "the reader still holds it";
    EXPECT_TRUE(mLog.has("handleDataFinish block index"));
    inbox.takeAll();
    BlockStatus& block = status(sample);
    ASSERT_TRUE(waitFor([&] { return block.writeRef.load() == 1; }));
    EXPECT_TRUE(mWriter->handleDataFinish(finish));
    EXPECT_EQ(block.writeRef.load(), 1u);
    EXPECT_EQ(block.stateWord().state, BlockState::Ready);

    finish.sequence -= 1;
    EXPECT_TRUE(mWriter->handleDataFinish(finish)) << "of an earlier incarnation";
    finish.location = LocationWord{2, 0, kSmallCount}.pack();
    EXPECT_FALSE(mWriter->handleDataFinish(finish)) << "no such block";
    finish.location = LocationWord{2, 31, 0}.pack();
    EXPECT_FALSE(mWriter->handleDataFinish(finish)) << "no such pool";
    EXPECT_EQ(block.writeRef.load(), 1u);
    sample.reset();
    EXPECT_EQ(busyBlocks(), 0u);
    EXPECT_EQ(mReleased, 1u);
}

TEST_F(WriteChannelTest, WhatNobodyCouldBeToldOfIsTheWritersAgain) {
    Inbox inbox;
    auto deaf = openReader("deaf", inbox);
    // Alive in the table, but nobody can reach it.
    unlink(("/tmp/shmipc_" + mDomainName + "_deaf.socket").c_str());
    Sample sample = mWriter->allocate(10, 0);
    BlockStatus& block = status(sample);
    const uint64_t sequence = block.stateWord().sequence;
    EXPECT_TRUE(mWriter->commit(sample));
    EXPECT_TRUE(block.stateWord().is(BlockState::Writing, sequence + 2));
    EXPECT_EQ(block.writeRef.load(), 1u);
    EXPECT_TRUE(block.readerMasks().empty());
    EXPECT_TRUE(mLog.has("Failed to notify reader ["));

    // One reader that hears is enough, and a later commit has no reader left over from this one.
    openReader("hearing", inbox);
    deaf->close();
    EXPECT_TRUE(mWriter->commit(sample));
    EXPECT_EQ(block.readerIds[1].load(), 0u);
    ASSERT_TRUE(inbox.waitForSize(1));
    inbox.takeAll();
    sample.reset();
    EXPECT_TRUE(waitUntilAllFree());
    EXPECT_EQ(mReleased, 1u);
}

// The first reader is done long before the connection to the second has failed, and is not the
// last.
TEST_F(WriteChannelTest, ABlockWhoseLastReaderCannotBeToldComesBackAtOnce) {
    std::atomic<int> got{0};
    const auto quick = reader("quick");
    ASSERT_TRUE(quick->open([&](Sample&) { ++got; }));
    Inbox inbox;
    openReader("deaf", inbox);
    unlink(("/tmp/shmipc_" + mDomainName + "_deaf.socket").c_str());
    commit("to one of two");
    EXPECT_TRUE(waitFor([&] { return busyBlocks() == 0; }, 3000)) << "before any time limit";
    EXPECT_EQ(got, 1);
    EXPECT_EQ(mReleased, 1u);
}

TEST_F(WriteChannelTest, ACommitAfterTheBlockWasTakenAwayTouchesNobody) {
    const auto stranger = writer("stranger");
    Sample lost = mWriter->allocate(10, 0);
    BlockHeader& block = header(lost);
    const auto pool = mDomain->getPool(block.locationWord().poolId);
    ASSERT_TRUE(pool->releaseBlock(&block));
    // The next owner has the same block: all others are taken.
    std::vector<Sample> all;
    while (Sample next = stranger->allocate(10, 0)) {
        all.push_back(next);
    }
    ASSERT_EQ(block.status.writeRef.load(), 1u);
    const uint64_t state = block.status.state.load();
    EXPECT_FALSE(mWriter->commit(lost));
    lost.reset();
    EXPECT_EQ(block.status.writeRef.load(), 1u);
    EXPECT_EQ(block.status.state.load(), state);
    EXPECT_EQ(mReleased, 0u);
}

TEST_F(WriteChannelTest, SizesStayWithinTheBlock) {
    Sample sample = mWriter->allocate(10, 4);
    EXPECT_FALSE(sample->resize(kSmallSize + 1));
    EXPECT_FALSE(sample->resizeExtraData(kExtraSize + 1));
    EXPECT_EQ(sample->size(), 10u);
    EXPECT_EQ(sample->extraDataSize(), 4u);
    EXPECT_TRUE(sample->resize(kSmallSize));
    EXPECT_TRUE(sample->resizeExtraData(kExtraSize));
    EXPECT_EQ(sample->size(), kSmallSize);
    header(sample).size.store(~0u);  // what a stranger could write
    EXPECT_EQ(sample->size(), kSmallSize);

    EXPECT_EQ(sample->incReference(), 2u);
    EXPECT_EQ(sample->decReference(), 1u);
    EXPECT_EQ(sample->decReference(), 0u);
    EXPECT_EQ(sample->decReference(), 0u) << "never below 0";
    EXPECT_EQ(sample->incReference(), 1u);
}

TEST_F(WriteChannelTest, CreateMakesAPoolOfTheChannelAndNeedsInit) {
    const std::string name = mCleanup.channel("private");
    const auto channel = mDomain->createNode("writer")->newWriteChannel(name);
    EXPECT_FALSE(channel->create({}, {}));
    EXPECT_TRUE(mLog.has("writer channel " + name + " status shared memory is null"));
    ASSERT_TRUE(channel->init());
    ASSERT_TRUE(channel->create({100, 2, 0}, {}));
    const Sample sample = channel->allocate(100, 0);
    ASSERT_TRUE(sample);
    EXPECT_EQ(sample->capacity(), 100u);
    const unsigned int pool = header(sample).locationWord().poolId;
    EXPECT_EQ(storedName(mDomain->getPoolInfo(pool)->name), name + "_data");
    for (unsigned int i = 1; i < kMaxWriters; ++i) {
        EXPECT_TRUE(channel->create({}, {}));
    }
    EXPECT_FALSE(channel->create({}, {})) << "a ninth entry";
    EXPECT_TRUE(mLog.has("register writer " + name + " failed"));
}

TEST_F(WriteChannelTest, ChecksOfOneBlockAct) {
    Inbox inbox;
    const auto open = openReader("reader", inbox);
    Sample sample = commit("checked");
    ASSERT_TRUE(inbox.waitForSize(1));
    BlockHeader& block = header(sample);
    mWriter->checkWritingBuffer(&block, mDomain);
    block.status.timestamp.store(1);
    mWriter->checkReadyBuffer(&block, mDomain);
    EXPECT_EQ(block.status.claimMask(), 1u) << "a claim of the living has no time limit";
    EXPECT_EQ(mWriter->getReaderCount(), 1u);

    // The reader's id means nobody from here on: its claim and its entry go, and with this node as
    // the writer the block is settled at once.
    block.status.readerIds[0].store(1234567);
    mWriter->checkReadyBuffer(&block, mDomain);
    EXPECT_TRUE(block.status.readerMasks().empty());
    EXPECT_EQ(block.status.writeRef.load(), 1u);
    sample.reset();
    EXPECT_EQ(block.status.stateWord().state, BlockState::Free);
    inbox.takeAll();
    EXPECT_EQ(block.status.stateWord().state, BlockState::Free);
    EXPECT_EQ(mReleased, 1u);
}

TEST_F(WriteChannelTest, ABlockOutlivesTheDomainInItsHoldersHands) {
    Sample sample = mWriter->allocate(10, 0);
    Sample orphan = mWriter->allocate(10, 0);
    BlockStatus& block = status(orphan);
    mDomain->deInit();
    std::memset(sample->data(), 7, sample->capacity());
    sample->timestamp();
    sample.reset();
    EXPECT_EQ(mReleased, 1u);
    EXPECT_TRUE(mLog.has("Failed to get pool 0 when releasing block"));
    mWriter.reset();
    EXPECT_EQ(block.stateWord().state, BlockState::Writing);
    orphan.reset();
    EXPECT_EQ(mReleased, 1u) << "without its channel nobody gives the block back";
}

}  // namespace
}  // namespace OrbelTest
