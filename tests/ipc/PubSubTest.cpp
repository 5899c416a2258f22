#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>

#include <chrono>
#include <thread>

#include "tests/ipc/ChannelFixture.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/OpenDescriptors.h"

namespace OrbelTest {
namespace {

class PubSubTest : public ChannelFixture {
protected:
    /// Another process of the channel, ready to "write", to "read" or to "keep".
    std::unique_ptr<HelperProcess> peer(const char* role) {
        auto process = std::make_unique<HelperProcess>(
            "ChannelPeerHelper", std::vector<std::string>{role, mDomainName, mChannelName});
        EXPECT_TRUE(process->waitForLine("ready"));
        connectToAll(*mDomain);
        return process;
    }
    /// Returns when every thread of the peer has stopped: what is sent now lies in its socket.
    static void stop(const HelperProcess& peer) {
        kill(peer.pid(), SIGSTOP);
        int status = 0;
        ASSERT_EQ(waitpid(peer.pid(), &status, WUNTRACED), peer.pid());
        ASSERT_TRUE(WIFSTOPPED(status));
    }
    /// Makes a block look older than the time limits, which this way nobody has to wait for.
    static void age(BlockHeader& block) {
        block.status.timestamp.store(block.status.timestamp.load() - 5000000);
    }
};

// The last two of eight readers leave at once while the writer holds and drops: each block must
// come back exactly once, whoever is last.
TEST_F(PubSubTest, EachBlockComesBackOnceHoweverItsReadersLeave) {
    constexpr unsigned int kRounds = 1500;
    for (unsigned int i = 0; i < kMaxReaders; ++i) {
        openReader("reader" + std::to_string(i))->setSyncMode(true);
    }
    for (unsigned int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(mDomain->mRepeats, 0) << "a finish was lost";
        Sample sample;
        ASSERT_TRUE(waitFor([&] { return (sample = mWriter->allocate(4, 0)) != nullptr; }));
        ASSERT_TRUE(mWriter->commit(sample));
        std::vector<Sample> held = mInbox.take(kMaxReaders);
        std::vector<Sample> half(held.begin() + kMaxReaders / 2, held.end());
        held.resize(kMaxReaders / 2);
        std::atomic<bool> go{false};
        {
            std::jthread other([&] {
                while (!go) {
                }
                half.clear();
            });
            go = true;
            held.clear();
            if (round % 2 == 0) {
                sample.reset();
            }
        }
        if (sample) {
            ASSERT_TRUE(waitFor([&] { return status(sample).writeRef.load() <= 1; }));
            ASSERT_EQ(status(sample).writeRef.load(), 1u) << "a finish took the writer's own hold";
        }
    }
    EXPECT_TRUE(allComeBack());
    EXPECT_EQ(mReleased, kRounds);
    EXPECT_FALSE(mLog.has("pending refs"));
    EXPECT_FALSE(mLog.has("not equal"));
}

// What a sync callback lets go of leaves in common sends of at most 16 finishes for one writer.
TEST_F(PubSubTest, ACallbackMayLetGoOfManySamplesOfSeveralWritersAtOnce) {
    constexpr unsigned int kSamples = 40;
    ASSERT_TRUE(mDomain->createPool("many", 64, kExtraSize, kSamples));
    const auto second = writer("second");
    std::atomic<unsigned int> secondReleased{0};
    ASSERT_TRUE(second->create({}, [&](unsigned char*, unsigned int, unsigned char*, unsigned int) {
        ++secondReleased;
        return true;
    }));
    const auto channel = reader("reader");
    channel->setSyncMode(true);
    std::vector<Sample> held;
    ASSERT_TRUE(channel->open([&](Sample& sample) {
        held.push_back(std::move(sample));
        if (held.size() == kSamples) {
            held.clear();
        }
    }));
    for (unsigned int i = 0; i < kSamples; ++i) {
        // 20 in a row of the first writer, then one by one in turn.
        SharedMemWriteChannelImpl& from = i < 20 || i % 2 == 0 ? *mWriter : *second;
        Sample sample = from.allocate(4, 0);
        ASSERT_TRUE(sample);
        ASSERT_TRUE(from.commit(sample));
    }
    EXPECT_TRUE(allComeBack());
    EXPECT_EQ(mReleased, 30u);
    EXPECT_EQ(secondReleased, 10u);
    channel->close();
}

TEST_F(PubSubTest, ADescriptorReachesEveryReaderAndNoneIsLeft) {
    openReader("first");
    const auto second = openReader("second");
    const UniqueFd memory(memfd_create("passed", MFD_CLOEXEC));
    const auto publish = [&] {
        Sample sample = mWriter->allocate(1, 0);
        ASSERT_TRUE(sample);
        ASSERT_EQ(sample->fd(memory.get()), memory.get());
        ASSERT_TRUE(mWriter->commit(sample));
    };
    publish();  // connections are made on the way
    mInbox.take(2);
    ASSERT_TRUE(allComeBack());
    const long before = openDescriptors();
    for (int i = 0; i < 200; ++i) {
        publish();
        const std::vector<Sample> got = mInbox.take(2);
        ASSERT_EQ(got.size(), 2u);
        ASSERT_NE(got[0]->fd(), got[1]->fd());
        for (const Sample& sample : got) {
            ASSERT_EQ(pwrite(sample->fd(), &i, sizeof i, 0), static_cast<ssize_t>(sizeof i));
        }
    }
    ASSERT_TRUE(allComeBack());
    EXPECT_EQ(openDescriptors(), before);

    // A closed channel that is still in the table: its messages are refused, with what they carry.
    second->close();
    second->registerReader();
    publish();
    Sample last = mInbox.take(1).at(0);
    ASSERT_TRUE(waitFor([&] { return mLog.has("reader channel " + mChannelName + " closed"); }));
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before + 1; }));
    const UniqueFd detached(last->detachFd());
    EXPECT_EQ(last->fd(), -1);
    last.reset();
    EXPECT_NE(fcntl(detached.get(), F_GETFD), -1) << "closed although it was detached";
}

TEST_F(PubSubTest, TwoProcessesExchangeSamples) {
    openReader("reader");
    const auto writer = peer("write");
    const auto reader = peer("read");
    EXPECT_EQ(mWriter->getReaderCount(), 2u);
    for (int i = 0; i < 20; ++i) {
        const std::string number = "number " + std::to_string(i);
        commit(number);
        ASSERT_TRUE(reader->waitForLine("got " + number));
        EXPECT_EQ(text(mInbox.take(1).at(0)), number);
        ASSERT_EQ(writer->ask("commit"), "committed");
        EXPECT_EQ(text(mInbox.take(1).at(0)), "peer");
    }
    for (HelperProcess* process : {writer.get(), reader.get()}) {
        process->closeInput();
        EXPECT_EQ(process->wait(), 0);
    }
    EXPECT_TRUE(allComeBack());
    EXPECT_EQ(mWriter->getReaderCount(), 1u);
}

TEST_F(PubSubTest, AWriterKilledWhileFillingGivesItsBlockBackAndNothingElseStops) {
    openReader("reader");
    const auto writer = peer("write");
    EXPECT_EQ(busyBlocks(), 1u);
    const auto begin = std::chrono::steady_clock::now();
    writer->killAndReap();
    commit("the others go on");
    EXPECT_TRUE(waitFor([&] { return mInbox.size() == 1; }));
    EXPECT_EQ(busyBlocks(), 2u);
    mInbox.take(1);
    EXPECT_TRUE(allAreSettled());
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(500)) << "a second from its last sign of life";
    EXPECT_LT(took, std::chrono::seconds(12));
    EXPECT_TRUE(mLog.has("as writer is not alive in writing state"));
}

TEST_F(PubSubTest, AReaderKilledWhileHoldingGivesItsBlocksBackAndTheOthersGoOn) {
    openReader("reader");
    const auto holder = peer("keep");
    // It gets what there is, and the writer is told so.
    for (unsigned int i = 0; i < kSmallCount; ++i) {
        commit("kept");
        ASSERT_TRUE(holder->waitForLine("got kept"));
    }
    mInbox.take(kSmallCount);
    EXPECT_EQ(mWriter->allocate(1, 0), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    holder->killAndReap();
    Sample sample;
    ASSERT_TRUE(waitFor([&] { return (sample = mWriter->allocate(4, 0)) != nullptr; }, 5000));
    ASSERT_TRUE(mWriter->commit(sample));
    sample.reset();
    mInbox.take(1);
    EXPECT_TRUE(allAreSettled());
    EXPECT_EQ(mReleased, kSmallCount + 1);
    EXPECT_TRUE(waitFor([&] { return mWriter->getReaderCount() == 1; }));
}

TEST_F(PubSubTest, AReaderThatNeverClaimsLosesTheSampleAfterTheLimitOrWhenItDies) {
    openReader("reader");
    const auto silent = peer("read");
    commit("connect");
    ASSERT_TRUE(silent->waitForLine("got connect"));
    mInbox.take(1);
    ASSERT_TRUE(allComeBack());

    stop(*silent);
    Sample sample = commit("too late");
    mInbox.take(1);
    BlockHeader& block = header(sample);
    sample.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(block.status.stateWord().state, BlockState::Ready) << "the living have 5 seconds";
    age(block);
    EXPECT_TRUE(allAreSettled());
    kill(silent->pid(), SIGCONT);
    commit("in time");
    std::string line;
    ASSERT_TRUE(silent->readLine(line));
    EXPECT_EQ(line, "got in time") << "it must skip what it lost";
    mInbox.take(1);
    EXPECT_TRUE(allAreSettled());

    stop(*silent);
    commit("never seen");
    mInbox.take(1);
    silent->killAndReap();
    EXPECT_TRUE(waitFor([&] { return busyBlocks() == 0; }, 4000)) << "no limit for the dead";
    EXPECT_EQ(mReleased, 4u);
}

}  // namespace
}  // namespace OrbelTest
