#include <fcntl.h>

#include <condition_variable>
#include <thread>

#include "ipc/PipeMessage.h"
#include "tests/ipc/ChannelFixture.h"

namespace OrbelTest {
namespace {

class ReadChannelTest : public ChannelFixture {
protected:
    /// The message that the reader of a committed sample got.
    static PipeMessage readyOf(const Sample& sample, unsigned long channelId) {
        const BlockStatus& block = status(sample);
        return PipeMessage::make(PipeAction::DataReady, header(sample).locationWord(), channelId,
                                 block.writerId.load(), block.stateWord().sequence);
    }
};

TEST_F(ReadChannelTest, AClaimNeedsTheIncarnationAndAnOwnBit) {
    Sample sample = mWriter->allocate(10, 0);
    BlockStatus& block = status(sample);
    const unsigned long writerId = block.writerId.load();
    StateWord word = block.stateWord();
    const uint64_t sequence = word.sequence + 1;
    block.storeMasks({0b101, 0b100});
    EXPECT_FALSE(block.tryClaimReader(0, writerId, sequence)) << "not ready";
    ASSERT_TRUE(block.exchangeState(word, word.next(BlockState::Ready)));
    const struct {
        const char* why;
        unsigned int reader;
        unsigned long writer;
        unsigned long sequence;
    } refused[] = {
        {"index", 8, writerId, sequence},
        {"no writer", 0, 0, sequence},
        {"other writer", 0, writerId + 1, sequence},
        {"old sequence", 0, writerId, sequence - 1},
        {"not waited for", 1, writerId, sequence},
        {"claimed", 2, writerId, sequence},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(c.why);
        EXPECT_FALSE(block.tryClaimReader(c.reader, c.writer, c.sequence));
        EXPECT_EQ(block.claimMask(), 0b100u);
        EXPECT_EQ(block.readRef.load(), 0u);
    }
    EXPECT_TRUE(block.tryClaimReader(0, writerId, sequence));
    EXPECT_EQ(block.claimMask(), 0b101u);
    EXPECT_EQ(block.readRef.load(), 1u);
    block.storeMasks({});
}

TEST_F(ReadChannelTest, RefusesMessagesThatAreNotForItAndLeavesTheBlockAlone) {
    Inbox inbox;
    const auto channel = openReader("reader", inbox);
    const auto other = reader("other");
    EXPECT_FALSE(other->handleDataReady({}));
    EXPECT_TRUE(mLog.has("reader channel " + mChannelName + " closed"));
    ASSERT_TRUE(other->open(inbox.callback()));

    Sample sample = commit("to be claimed twice");
    ASSERT_TRUE(inbox.waitForSize(2));
    const auto forged = [&](auto change) {
        PipeMessage message = readyOf(sample, channel->channelId());
        change(message);
        return message;
    };
    using M = PipeMessage;
    const struct {
        const char* line;
        PipeMessage message;
    } cases[] = {
        {"Failed to get pool 31", forged([](M& m) {
             m.location = LocationWord{1, 31, 0}.pack();
         })},
        {"Failed to get block header 8388607", forged([](M& m) {
             m.location = LocationWord{1, 0, 8388607}.pack();
         })},
        {"writerId mismatch: expected", forged([](M& m) { m.writerId ^= 1; })},
        {"handleDataReady block index", forged([](M& m) { m.sequence += 1; })},
        {"claim failed, readerIndex", forged([](M&) {})},
    };
    BlockStatus& block = status(sample);
    const uint64_t masks = block.masks.load();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const int before = mLog.count(c.line);
        EXPECT_FALSE(channel->handleDataReady(c.message));
        EXPECT_EQ(mLog.count(c.line), before + 1);
        EXPECT_EQ(block.masks.load(), masks);
        EXPECT_EQ(block.readRef.load(), 2u);
    }
    const auto third = reader("third");
    ASSERT_TRUE(third->open(inbox.callback()));
    EXPECT_FALSE(third->handleDataReady(readyOf(sample, channel->channelId())));
    EXPECT_TRUE(mLog.has(">>>> read buffer not found reader index"));
    sample.reset();
    inbox.takeAll();
    EXPECT_TRUE(waitUntilAllFree());
    EXPECT_FALSE(mLog.has("pending refs"));
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
        Sample sample;
        ASSERT_TRUE(waitFor([&] { return (sample = mWriter->allocate(8, 0)) != nullptr; }));
        sent.push_back(std::to_string(i));
        ASSERT_TRUE(sample->resize(static_cast<unsigned int>(sent.back().size())));
        std::memcpy(sample->data(), sent.back().data(), sent.back().size());
        ASSERT_TRUE(mWriter->commit(sample));
    }
    ASSERT_TRUE(waitUntilAllFree());
    std::lock_guard<std::mutex> guard(mutex);
    EXPECT_EQ(got[0], sent);
    EXPECT_EQ(got[1], sent);
    EXPECT_NE(threads[0], threads[1]);
    EXPECT_NE(threads[0], std::this_thread::get_id());
    EXPECT_EQ(mReleased, 50u);
}

TEST_F(ReadChannelTest, AHeldSampleOutlivesItsChannelsClose) {
    Inbox inbox;
    const auto channel = openReader("reader", inbox);
    commit("held");
    ASSERT_TRUE(inbox.waitForSize(1));
    EXPECT_TRUE(channel->close());
    EXPECT_TRUE(channel->close()) << "again: nothing";
    EXPECT_EQ(mWriter->getReaderCount(), 0u);
    std::vector<Sample> held = inbox.takeAll();
    EXPECT_EQ(text(held.at(0)), "held");
    EXPECT_FALSE(held.at(0)->resize(1));
    EXPECT_FALSE(held.at(0)->resizeExtraData(0));
    EXPECT_EQ(busyBlocks(), 1u);
    held.clear();
    EXPECT_TRUE(waitUntilAllFree()) << "the finish was sent all the same";
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
        ASSERT_TRUE(waitFor([&] { return state->load() == 1; }));
        ASSERT_TRUE(waitFor([&] { return state.use_count() == 1; }));
        commit("to nobody");
        ASSERT_TRUE(waitUntilAllFree());

        Inbox inbox;
        ASSERT_TRUE(channel->open(inbox.callback())) << "opens again";
        commit("second");
        EXPECT_TRUE(inbox.waitForSize(1));
        channel->close();
    }
}

TEST_F(ReadChannelTest, ASecondOpenTakesASecondEntryThatGetsNothing) {
    Inbox inbox;
    const auto channel = openReader("reader", inbox);
    ASSERT_TRUE(channel->open(inbox.callback()));
    EXPECT_EQ(mWriter->getReaderCount(), 2u);
    Sample sample = commit("once");
    ASSERT_TRUE(inbox.waitForSize(1));
    ASSERT_TRUE(waitFor([&] { return mLog.has("claim failed, readerIndex 0"); }));
    EXPECT_EQ(inbox.size(), 1u);
    EXPECT_EQ(status(sample).readMask(), 3u);
}

TEST_F(ReadChannelTest, NineReadersAreOneTooMany) {
    std::vector<std::shared_ptr<SharedMemReadChannelImpl>> channels;
    Inbox inbox;
    EXPECT_FALSE(mDomain->createNode("writer")->newReadChannel(mChannelName)->open({}));
    EXPECT_TRUE(mLog.has("reader channel " + mChannelName + " status shared memory is null"));
    for (unsigned int i = 0; i < kMaxReaders; ++i) {
        channels.push_back(openReader("reader" + std::to_string(i), inbox));
    }
    const auto ninth = reader("ninth");
    EXPECT_FALSE(ninth->open(inbox.callback()));
    EXPECT_TRUE(mLog.has("Failed to register reader for channel " + mChannelName));
    EXPECT_FALSE(ninth->handleDataReady({})) << "closed again";
    commit("to eight");
    ASSERT_TRUE(inbox.waitForSize(kMaxReaders));
    EXPECT_EQ(busyBlocks(), 1u);
    inbox.takeAll();
    EXPECT_TRUE(waitUntilAllFree());
    channels[3]->close();
    EXPECT_TRUE(ninth->open(inbox.callback()));
}

TEST_F(ReadChannelTest, TheDescriptorIsTheBuffersUnlessDetached) {
    Inbox inbox;
    openReader("reader", inbox);
    const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
    Sample sample = mWriter->allocate(1, 0);
    EXPECT_EQ(sample->fd(), -1);
    const int own = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(sample->fd(own), own);
    ASSERT_TRUE(mWriter->commit(sample));
    sample.reset();
    EXPECT_TRUE(isOpen(own)) << "a writer's descriptor stays its own";
    ASSERT_TRUE(inbox.waitForSize(1));
    Sample got = inbox.takeAll().at(0);
    const int detached = got->detachFd();
    EXPECT_NE(detached, own);
    EXPECT_EQ(got->fd(), -1);
    got.reset();
    EXPECT_TRUE(isOpen(detached));
    close(detached);

    sample = mWriter->allocate(1, 0);
    sample->fd(own);
    ASSERT_TRUE(mWriter->commit(sample));
    ASSERT_TRUE(inbox.waitForSize(1));
    got = inbox.takeAll().at(0);
    const int owned = got->fd();
    EXPECT_TRUE(isOpen(owned));
    got.reset();
    EXPECT_FALSE(isOpen(owned));
    close(own);
}

TEST_F(ReadChannelTest, ABlockThatMovedOnIsNotTouchedByALateDrop) {
    Inbox inbox;
    openReader("reader", inbox);
    Sample sample = commit("lost");
    ASSERT_TRUE(inbox.waitForSize(1));
    BlockHeader& block = header(sample);
    const auto pool = mDomain->getPool(block.locationWord().poolId);
    // As if the clean-up had taken the reader for dead: freed, and in flight again to somebody.
    block.status.storeMasks({});
    block.status.readRef.store(0);
    ASSERT_TRUE(pool->releaseBlock(&block));
    sample.reset();
    std::vector<Sample> all;
    while (Sample next = mWriter->allocate(1, 0)) {
        all.push_back(next);
    }
    StateWord word = block.status.stateWord();
    ASSERT_TRUE(block.status.exchangeState(word, word.next(BlockState::Ready)));
    block.status.storeMasks({1, 1});
    block.status.readRef.store(1);
    inbox.takeAll();
    EXPECT_EQ(block.status.readerMasks().pack(), (ReaderMasks{1, 1}).pack());
    EXPECT_EQ(block.status.readRef.load(), 1u);
    block.status.storeMasks({});
    block.status.readRef.store(0);
}

TEST_F(ReadChannelTest, ASampleThatTheWorkerCannotTakeIsSkippedAndItsBlockComesBack) {
    const std::string name = mCleanup.channel("flood");
    const auto flood = mDomain->createNode("writer")->newWriteChannel(name);
    ASSERT_TRUE(flood->init());
    ASSERT_TRUE(flood->create({8, 1200, 0}, {}));
    const auto channel = node("reader")->newReadChannel(name);
    ASSERT_TRUE(channel->init());
    std::mutex gate;
    std::atomic<int> got{0};
    gate.lock();
    ASSERT_TRUE(channel->open([&](Sample&) {
        std::lock_guard<std::mutex> wait(gate);
        ++got;
    }));
    constexpr int kCount = 1100;  // the queue holds 1025 and the worker one
    for (int i = 0; i < kCount; ++i) {
        Sample sample = flood->allocate(8, 0);
        ASSERT_TRUE(sample);
        ASSERT_TRUE(flood->commit(sample));
    }
    EXPECT_TRUE(waitFor([&] { return mLog.count("Failed to post async read callback") == 74; }));
    gate.unlock();
    EXPECT_TRUE(waitUntilAllFree());
    EXPECT_EQ(got, 1026);
}

TEST_F(ReadChannelTest, TheDomainIsLeftWhileSamplesAreHeldAndQueued) {
    Inbox inbox;
    openReader("reader", inbox);
    commit("held");
    ASSERT_TRUE(inbox.waitForSize(1));
    for (int i = 0; i < 5; ++i) {
        commit("in flight");
    }
    mDomain->deInit();
    std::vector<Sample> held = inbox.takeAll();
    EXPECT_EQ(text(held.at(0)), "held");
    EXPECT_EQ(mDomain->getPool(0), nullptr);
    held.clear();
}

}  // namespace
}  // namespace OrbelTest
