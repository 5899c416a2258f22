#include <cerrno>

#include "ipc/NodeSocket.h"
#include "tests/ipc/ChannelFixture.h"

namespace OrbelTest {
namespace {

class WriteChannelTest : public ChannelFixture {
protected:
    /// A reader that is alive in the table, but that nobody can reach.
    std::shared_ptr<SharedMemReadChannel> openDeafReader(const std::string& name) {
        auto channel = aliveNode(*mDomain, name)->newReadChannel(mChannelName);
        unlink(nodeSocketPath(mDomainName, name).c_str());
        EXPECT_TRUE(channel->init() && channel->open({}));
        return channel;
    }
};

TEST_F(WriteChannelTest, CommitWithoutReadersLeavesTheBlockToItsHolder) {
    const auto channel = writer("second");
    Sample sample;
    int released = 0;
    ASSERT_TRUE(channel->create({100, 2, 16}, [&](unsigned char* data, unsigned int size,
                                                  unsigned char* extra, unsigned int extraSize) {
        EXPECT_EQ(std::string(reinterpret_cast<char*>(data), size), "payload");
        EXPECT_EQ(std::string(reinterpret_cast<char*>(extra), extraSize), "extra");
        ++released;
        return false;  // has no effect
    }));
    sample = channel->allocate(7, 5);
    ASSERT_TRUE(sample);
    EXPECT_EQ(sample->capacity(), 100u) << "from the channel's own pool, which fits best";
    std::memcpy(sample->data(), "payload", 7);
    std::memcpy(sample->extraData(), "extra", 5);
    const BlockStatus& block = status(sample);
    const unsigned int pool = header(sample).locationWord().poolId;
    EXPECT_EQ(storedName(mDomain->getPoolInfo(pool)->name), mChannelName + "_data");

    const uint64_t sequence = block.stateWord().sequence;
    EXPECT_TRUE(channel->commit(sample));
    EXPECT_TRUE(channel->commit(sample)) << "nothing is in flight";
    EXPECT_TRUE(block.stateWord().is(BlockState::Writing, sequence));
    EXPECT_EQ(block.writeRef.load(), 1u);
    EXPECT_EQ(released, 0);
    sample.reset();
    EXPECT_TRUE(block.stateWord().is(BlockState::Free, sequence + 1));
    EXPECT_EQ(released, 1);
}

TEST_F(WriteChannelTest, AllocateSaysInErrnoWhyItCannot) {
    EXPECT_EQ(mWriter->allocate(kLargeSize + 1, 0), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(mLog.count("Failed to find or create pool for channel"), 1);

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

    all.clear();
    mDomain->deInit();
    mJoined.clear();
    mDomain.reset();
    EXPECT_EQ(mWriter->allocate(1, 0), nullptr);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(mWriter->allocate(&errno, 1, 0), nullptr);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_FALSE(mWriter->create({}, {}));
}

TEST_F(WriteChannelTest, AllocateByAddressRefusesWhatThisNodeDoesNotHold) {
    const Sample own = mWriter->allocate(10, 0);
    const auto stranger = writer("stranger");
    const Sample foreign = stranger->allocate(10, 0);
    void* const freed = mWriter->allocate(10, 0)->data();
    unsigned char outside = 0;
    const struct {
        const char* line;
        void* data;
        unsigned int size;
        unsigned int extraSize;
        int error;
    } cases[] = {
        {"", nullptr, 1, 0, EINVAL},
        {"Data pointer does not correspond to any block", &outside, 1, 0, EINVAL},
        {" is free", freed, 1, 0, EINVAL},
        {" writerId mismatch", foreign->data(), 1, 0, EINVAL},
        {"Requested size exceeds pool block size", own->data(), kSmallSize + 1, 0, ENOBUFS},
        {"size = 1, poolBlockSize = 4096", own->data(), 1, kExtraSize + 1, ENOBUFS},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        errno = 0;
        EXPECT_EQ(mWriter->allocate(c.data, c.size, c.extraSize), nullptr);
        EXPECT_EQ(errno, c.error);
        EXPECT_TRUE(mLog.has(c.line));
    }
    EXPECT_EQ(status(own).writeRef.load(), 1u);
    EXPECT_EQ(own->size(), 10u);
}

// commit() moves only its own handle's sequence on; whichever handle drops last frees the block.
TEST_F(WriteChannelTest, TheLastHandleFreesTheBlockWhoeverCommittedIt) {
    openReader("reader");
    for (const bool committerDropsLast : {false, true}) {
        SCOPED_TRACE(committerDropsLast);
        Sample committer = mWriter->allocate(10, 0);
        auto* const middle = static_cast<unsigned char*>(committer->data()) + 1000;
        Sample other = mWriter->allocate(middle, 20, 8);
        ASSERT_TRUE(other);
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(other->data(), middle);
        EXPECT_EQ(other->blockIndex(), committer->blockIndex());
        EXPECT_EQ(committer->size(), 20u);
        EXPECT_EQ(committer->extraDataSize(), 8u);
        ASSERT_TRUE(mWriter->commit(committer));
        BlockStatus& block = status(other);
        EXPECT_EQ(block.writeRef.load(), 3u);
        mInbox.take(1);
        ASSERT_TRUE(waitFor([&] { return block.writeRef.load() == 2; }));
        (committerDropsLast ? other : committer).reset();
        EXPECT_EQ(block.stateWord().state, BlockState::Ready);
        (committerDropsLast ? committer : other).reset();
        EXPECT_EQ(block.stateWord().state, BlockState::Free);
    }
    EXPECT_EQ(mReleased, 2u);
    EXPECT_FALSE(mLog.has("pending refs"));
}

TEST_F(WriteChannelTest, ASecondCommitFailsAndTakesNothingFromTheReader) {
    openReader("reader");
    Sample sample = commit("once");
    std::vector<Sample> got = mInbox.take(1);
    BlockStatus& block = status(sample);
    const uint64_t state = block.state.load();
    EXPECT_FALSE(mWriter->commit(sample));
    EXPECT_TRUE(mLog.has("set ready failed state 2, sequence "));
    EXPECT_EQ(block.state.load(), state);
    EXPECT_EQ(block.readerMasks().pack(), (ReaderMasks{1, 1}).pack());
    EXPECT_EQ(block.writeRef.load(), 2u);
    Sample none;
    EXPECT_FALSE(mWriter->commit(none));
    EXPECT_FALSE(mWriter->commit(got.at(0))) << "a reader's buffer";
}

TEST_F(WriteChannelTest, ARepeatedFinishTakesNothingFromTheHandle) {
    openReader("reader");
    Sample sample = commit("held by the writer");
    std::vector<Sample> got = mInbox.take(1);
    PipeMessage finish = messageOf(PipeAction::DataFinish, sample);
    EXPECT_FALSE(mWriter->handleDataFinish(finish)) << "the reader still holds it";
    EXPECT_TRUE(mLog.has("handleDataFinish block index"));
    got.clear();
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
    const auto deaf = openDeafReader("deaf");
    const auto mute = openDeafReader("mute");
    Sample sample = mWriter->allocate(10, 0);
    BlockStatus& block = status(sample);
    const uint64_t sequence = block.stateWord().sequence;
    EXPECT_TRUE(mWriter->commit(sample));
    EXPECT_TRUE(block.stateWord().is(BlockState::Writing, sequence + 2));
    EXPECT_EQ(block.writeRef.load(), 1u);
    EXPECT_TRUE(block.readerMasks().empty());
    EXPECT_TRUE(mLog.has("Failed to notify reader ["));

    // One reader that hears is enough, and a later commit has no reader left over from this one.
    openReader("hearing");
    deaf->close();
    mute->close();
    EXPECT_TRUE(mWriter->commit(sample));
    EXPECT_EQ(block.readerIds[1].load(), 0u);
    mInbox.take(1);
    sample.reset();
    EXPECT_TRUE(allComeBack());
    EXPECT_EQ(mReleased, 1u);
}

// The first reader is done, and not the last, before the loop comes to the connection to the
// second.
TEST_F(WriteChannelTest, ABlockWhoseLastReaderCannotBeToldComesBackAtOnce) {
    const auto quick = reader("quick");
    quick->setSyncMode(true);
    std::atomic<int> got{0};
    ASSERT_TRUE(quick->open([&](Sample&) { ++got; }));
    openDeafReader("deaf");
    commit("to one of two");
    EXPECT_TRUE(allComeBack());
    EXPECT_EQ(got, 1);
    EXPECT_EQ(mReleased, 1u);
    quick->close();
}

TEST_F(WriteChannelTest, ACommitAfterTheBlockWasTakenAwayTouchesNobody) {
    Sample lost = mWriter->allocate(10, 0);
    const BlockStatus& block = status(lost);
    const std::vector<Sample> all = takeAway(header(lost), *writer("stranger"));
    ASSERT_EQ(block.writeRef.load(), 1u);
    const uint64_t state = block.state.load();
    EXPECT_FALSE(mWriter->commit(lost));
    lost.reset();
    EXPECT_EQ(block.writeRef.load(), 1u);
    EXPECT_EQ(block.state.load(), state);
    EXPECT_EQ(mReleased, 0u);
}

TEST_F(WriteChannelTest, SizesStayWithinTheBlock) {
    const Sample sample = mWriter->allocate(10, 4);
    EXPECT_FALSE(sample->resize(kSmallSize + 1));
    EXPECT_FALSE(sample->resizeExtraData(kExtraSize + 1));
    EXPECT_EQ(sample->size(), 10u);
    EXPECT_EQ(sample->extraDataSize(), 4u);
    EXPECT_TRUE(sample->resize(kSmallSize));
    EXPECT_TRUE(sample->resizeExtraData(kExtraSize));
    header(sample).size.store(~0u);  // what a stranger could write
    EXPECT_EQ(sample->size(), kSmallSize);
    EXPECT_EQ(sample->extraDataSize(), kExtraSize);

    EXPECT_EQ(sample->incReference(), 2u);
    EXPECT_EQ(sample->decReference(), 1u);
    EXPECT_EQ(sample->decReference(), 0u);
    EXPECT_EQ(sample->decReference(), 0u) << "never below 0";
    EXPECT_EQ(sample->incReference(), 1u);
}

TEST_F(WriteChannelTest, CreateNeedsAStatusSegmentWithAFreeEntry) {
    const std::string name = mCleanup.channel("full");
    const auto channel = node("writer")->newWriteChannel(name);
    EXPECT_FALSE(channel->create({}, {}));
    EXPECT_TRUE(mLog.has("writer channel " + name + " status shared memory is null"));
    ASSERT_TRUE(channel->init());
    for (unsigned int i = 0; i < kMaxWriters; ++i) {
        EXPECT_TRUE(channel->create({}, {}));
    }
    EXPECT_FALSE(channel->create({}, {})) << "a ninth entry";
    EXPECT_TRUE(mLog.has("register writer " + name + " failed"));
}

TEST_F(WriteChannelTest, ACheckOfOneBlockSettlesItWhereTheReaderIsGone) {
    openReader("reader");
    Sample sample = commit("checked");
    const std::vector<Sample> got = mInbox.take(1);
    BlockHeader& block = header(sample);
    mWriter->checkWritingBuffer(&block, mDomain);
    block.status.timestamp.store(1);
    mWriter->checkReadyBuffer(&block, mDomain);
    EXPECT_EQ(block.status.claimMask(), 1u) << "a claim of the living has no time limit";

    // The reader's id means nobody from here on.
    block.status.readerIds[0].store(1234567);
    mWriter->checkReadyBuffer(&block, mDomain);
    EXPECT_TRUE(block.status.readerMasks().empty());
    EXPECT_EQ(block.status.writeRef.load(), 1u);
    sample.reset();
    EXPECT_EQ(block.status.stateWord().state, BlockState::Free);
    EXPECT_EQ(mReleased, 1u);
}

TEST_F(WriteChannelTest, ABlockOutlivesTheDomainInItsHoldersHands) {
    Sample sample = mWriter->allocate(10, 0);
    Sample orphan = mWriter->allocate(10, 0);
    BlockStatus& block = status(orphan);
    mDomain->deInit();
    std::memset(sample->data(), 7, sample->capacity());
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
