#include <thread>

#include "Vantel/Orbel/IThreadPool.h"
#include "tests/ipc/ChannelFixture.h"

namespace OrbelTest {
namespace {

class ReadChannelTest : public ChannelFixture {};

TEST_F(ReadChannelTest, RefusesMessagesThatAreNotForItAndLeavesTheBlockAlone) {
    const auto channel = openReader("reader");
    const auto other = reader("other");
    EXPECT_FALSE(other->handleDataReady({}));
    EXPECT_TRUE(mLog.has("reader channel " + mChannelName + " closed"));
    ASSERT_TRUE(other->open(mInbox.callback()));

    Sample sample = commit("to be claimed twice");
    const std::vector<Sample> held = mInbox.take(2);
    const PipeMessage good = messageOf(PipeAction::DataReady, sample);
    PipeMessage noPool = good;
    PipeMessage noBlock = good;
    PipeMessage foreign = good;
    PipeMessage stale = good;
    noPool.location = LocationWord{1, 31, 0}.pack();
    noBlock.location = LocationWord{1, 0, 8388607}.pack();
    foreign.writerId ^= 1;
    stale.sequence += 1;
    const struct {
        const char* line;
        const PipeMessage& message;
    } cases[] = {
        {"Failed to get pool 31", noPool},        {"Failed to get block header 8388607", noBlock},
        {"writerId mismatch: expected", foreign}, {"handleDataReady block index", stale},
        {"claim failed, readerIndex", good},
    };
    const BlockStatus& block = status(sample);
    const uint64_t masks = block.masks.load();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_FALSE(channel->handleDataReady(c.message));
        EXPECT_EQ(mLog.count(c.line), 1);
        EXPECT_EQ(block.masks.load(), masks);
        EXPECT_EQ(block.readRef.load(), 2u);
    }
    EXPECT_FALSE(openReader("late")->handleDataReady(good));
    EXPECT_TRUE(mLog.has(">>>> read buffer not found reader index"));
}

TEST_F(ReadChannelTest, SyncCallbacksRunOnTheLoopOthersOnTheWorkerInOrder) {
    std::mutex mutex;
    std::vector<std::string> got[2];
    std::thread::id threads[2];
    for (const bool sync : {false, true}) {
        const auto channel = reader(sync ? "sync" : "default");
        EXPECT_TRUE(channel->setSyncMode(sync));
        ASSERT_TRUE(channel->open([&, sync](Sample& sample) {
            std::lock_guard<std::mutex> guard(mutex);
            got[sync].push_back(text(sample));
            threads[sync] = std::this_thread::get_id();
        }));
    }
    std::vector<std::string> sent;
    for (unsigned int i = 0; i < 50; ++i) {
        ASSERT_TRUE(waitFor([&] { return busyBlocks() < kSmallCount; }));
        sent.push_back(std::to_string(i));
        commit(sent.back());
    }
    ASSERT_TRUE(allComeBack());
    std::lock_guard<std::mutex> guard(mutex);
    EXPECT_EQ(got[0], sent);
    EXPECT_EQ(got[1], sent);
    EXPECT_NE(threads[0], threads[1]);
    EXPECT_NE(threads[0], std::this_thread::get_id());
    EXPECT_EQ(mReleased, 50u);
}

TEST_F(ReadChannelTest, AHeldSampleOutlivesItsChannelsClose) {
    const auto channel = openReader("reader");
    commit("held");
    std::vector<Sample> held = mInbox.take(1);
    EXPECT_TRUE(channel->close());
    EXPECT_TRUE(channel->close()) << "again: nothing";
    EXPECT_EQ(mWriter->getReaderCount(), 0u);
    EXPECT_EQ(text(held.at(0)), "held");
    EXPECT_FALSE(held.at(0)->resize(1));
    EXPECT_FALSE(held.at(0)->resizeExtraData(0));
    EXPECT_EQ(busyBlocks(), 1u);
    held.clear();
    EXPECT_TRUE(allComeBack()) << "the finish is sent all the same";
}

TEST_F(ReadChannelTest, HeldAndQueuedSamplesOutliveTheDomain) {
    openReader("reader");
    commit("held");
    std::vector<Sample> held = mInbox.take(1);
    for (int i = 0; i < 5; ++i) {
        commit("in flight");
    }
    mDomain->deInit();
    EXPECT_EQ(mDomain->getPool(0), nullptr);
    EXPECT_EQ(text(held.at(0)), "held");
    held.clear();
}

TEST_F(ReadChannelTest, TheCallbackMayCloseItsChannelAndDieWithIt) {
    for (const bool sync : {false, true}) {
        SCOPED_TRACE(sync);
        const auto channel = reader(sync ? "sync" : "default");
        channel->setSyncMode(sync);
        auto state = std::make_shared<std::atomic<int>>(0);
        ASSERT_TRUE(channel->open([&channel, state](Sample&) {
            EXPECT_TRUE(channel->close());
            ++*state;  // the callback itself is still there
        }));
        commit("first");
        ASSERT_TRUE(waitFor([&] { return state->load() == 1 && state.use_count() == 1; }));
        commit("to nobody");
        ASSERT_TRUE(allComeBack());

        ASSERT_TRUE(channel->open(mInbox.callback())) << "opens again";
        commit("second");
        mInbox.take(1);
        channel->close();
    }
}

// Nothing asks whether a node has an entry already.
TEST_F(ReadChannelTest, EachOpenTakesAnEntryAndTheNinthIsRefused) {
    EXPECT_FALSE(aliveNode(*mDomain, "early")->newReadChannel(mChannelName)->open({}));
    EXPECT_TRUE(mLog.has("reader channel " + mChannelName + " status shared memory is null"));
    const auto channel = reader("reader");
    for (unsigned int i = 0; i < kMaxReaders; ++i) {
        ASSERT_TRUE(channel->open(mInbox.callback()));
    }
    EXPECT_EQ(mWriter->getReaderCount(), kMaxReaders);
    const auto ninth = reader("ninth");
    EXPECT_FALSE(ninth->open(mInbox.callback()));
    EXPECT_TRUE(mLog.has("Failed to register reader for channel " + mChannelName));
    EXPECT_FALSE(ninth->handleDataReady({})) << "closed again";

    const Sample sample = commit("once");
    ASSERT_TRUE(waitFor([&] { return mLog.count("claim failed, readerIndex 0") == 7; }));
    mInbox.take(1);
    EXPECT_EQ(status(sample).readMask(), 0xFEu) << "what was refused is waited for";
    channel->close();
    EXPECT_TRUE(ninth->open(mInbox.callback()));
}

TEST_F(ReadChannelTest, ABlockThatMovedOnIsNotTouchedByALateDrop) {
    openReader("reader");
    const Sample sample = commit("lost");
    std::vector<Sample> late = mInbox.take(1);
    BlockStatus& block = status(sample);
    const std::vector<Sample> next = takeAway(header(sample), *mWriter);
    StateWord word = block.stateWord();
    ASSERT_TRUE(block.exchangeState(word, word.next(BlockState::Ready)));  // in flight again
    block.storeMasks({1, 1});
    block.readRef.store(1);
    late.clear();
    EXPECT_EQ(block.readerMasks().pack(), (ReaderMasks{1, 1}).pack());
    EXPECT_EQ(block.readRef.load(), 1u);
}

/// Keeps the worker until the gate is open.
class GateTask : public IThreadTask {
public:
    GateTask(SharedDomainImpl& domain, std::mutex& gate, std::atomic<int>& entered)
        : mDomain(domain), mGate(gate), mEntered(entered) {}
    ~GateTask() override { mDomain.onAsyncTaskDone(); }
    void run() override {
        ++mEntered;
        std::lock_guard<std::mutex> wait(mGate);
    }

private:
    SharedDomainImpl& mDomain;
    std::mutex& mGate;
    std::atomic<int>& mEntered;
};

TEST_F(ReadChannelTest, ASampleThatTheWorkerCannotTakeIsSkippedAndItsBlockComesBack) {
    openReader("reader");
    std::mutex gate;
    std::atomic<int> entered{0};
    const auto post = [&] { return mDomain->postAsyncTask(new GateTask(*mDomain, gate, entered)); };
    std::unique_lock<std::mutex> closed(gate);
    ASSERT_TRUE(post());
    ASSERT_TRUE(waitFor([&] { return entered == 1; }));
    int queued = 0;
    while (post()) {
        ++queued;
    }
    EXPECT_GE(queued, 1024);
    commit("skipped");
    EXPECT_TRUE(waitFor([&] { return mLog.has("Failed to post async read callback task"); }));
    EXPECT_TRUE(allComeBack());
    closed.unlock();
    ASSERT_TRUE(waitFor([&] { return entered == 1 + queued; }));
    commit("read");
    EXPECT_EQ(text(mInbox.take(1).at(0)), "read");
}

}  // namespace
}  // namespace OrbelTest
