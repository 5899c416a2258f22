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
    /// Makes a block look old, so that the clean-up does not have to wait.
    static void age(BlockHeader& block, uint64_t byUs) {
        block.status.timestamp.store(block.status.timestamp.load() - byUs);
    }
    /// Returns when every thread of the peer has stopped: what is sent now lies in its socket.
    static void stop(HelperProcess& peer) {
        kill(peer.pid(), SIGSTOP);
        int status = 0;
        ASSERT_EQ(waitpid(peer.pid(), &status, WUNTRACED), peer.pid());
        ASSERT_TRUE(WIFSTOPPED(status));
    }
    void joined(HelperProcess& peer) { ASSERT_TRUE(peer.waitForLine("ready")); }

    std::vector<std::string> peerArgs(const char* role) {
        return {role, mDomainName, mChannelName};
    }
};

// The last two of eight readers leave at once while the writer holds and drops: each block must
// come back exactly once, whoever is last.
TEST_F(PubSubTest, EachBlockComesBackOnceHoweverItsReadersLeave) {
    constexpr unsigned int kReaders = 8;
    constexpr unsigned int kRounds = 1500;
    Inbox inbox;
    for (unsigned int i = 0; i < kReaders; ++i) {
        const auto channel = reader("reader" + std::to_string(i));
        channel->setSyncMode(true);
        ASSERT_TRUE(channel->open(inbox.callback()));
    }
    for (unsigned int round = 0; round < kRounds; ++round) {
        Sample sample;
        ASSERT_TRUE(waitFor([&] { return (sample = mWriter->allocate(4, 0)) != nullptr; }));
        ASSERT_TRUE(mWriter->commit(sample));
        ASSERT_TRUE(inbox.waitForSize(kReaders));
        std::vector<Sample> held = inbox.takeAll();
        ASSERT_EQ(held.size(), kReaders);
        std::vector<Sample> half(held.begin() + kReaders / 2, held.end());
        held.resize(kReaders / 2);
        std::atomic<bool> go{false};
        std::thread other([&] {
            while (!go) {
            }
            half.clear();
        });
        go = true;
        held.clear();
        if (round % 2 == 0) {
            sample.reset();
        }
        other.join();
        // The finish must never take the writer's own hold.
        if (sample) {
            ASSERT_TRUE(waitFor([&] { return status(sample).writeRef.load() <= 1; }));
            ASSERT_EQ(status(sample).writeRef.load(), 1u);
        }
    }
    EXPECT_TRUE(waitUntilAllFree());
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
    // Sooner than the master's pass, which tells the writer again what it was not told after 5 s.
    EXPECT_TRUE(waitFor([this] { return busyBlocks() == 0; }, 4000));
    EXPECT_EQ(mReleased, 30u);
    EXPECT_EQ(secondReleased, 10u);
    channel->close();
}

TEST_F(PubSubTest, ADescriptorReachesEveryReaderAndNoneIsLeft) {
    Inbox inbox;
    const auto first = openReader("first", inbox);
    const auto second = openReader("second", inbox);
    const int memory = memfd_create("passed", MFD_CLOEXEC);
    const auto publish = [&] {
        Sample sample = mWriter->allocate(1, 0);
        sample->fd(memory);
        ASSERT_TRUE(mWriter->commit(sample));
    };
    publish();  // connections are made on the way
    ASSERT_TRUE(inbox.waitForSize(2));
    inbox.takeAll();
    ASSERT_TRUE(waitUntilAllFree());
    const long before = openDescriptors();
    for (int i = 0; i < 200; ++i) {
        publish();
        ASSERT_TRUE(inbox.waitForSize(2));
        const std::vector<Sample> got = inbox.takeAll();
        ASSERT_NE(got[0]->fd(), got[1]->fd());
        for (const Sample& sample : got) {
            ASSERT_EQ(pwrite(sample->fd(), &i, sizeof i, 0), static_cast<ssize_t>(sizeof i));
        }
    }
    ASSERT_TRUE(waitUntilAllFree());
    EXPECT_EQ(openDescriptors(), before);

    // A closed channel that is still in the table: its messages are refused, with what they carry.
    second->close();
    second->registerReader();
    publish();
    ASSERT_TRUE(inbox.waitForSize(1));
    inbox.takeAll();
    ASSERT_TRUE(waitFor([&] { return mLog.has("reader channel " + mChannelName + " closed"); }));
    EXPECT_TRUE(waitFor([&] { return openDescriptors() == before; }));
    close(memory);
}

TEST_F(PubSubTest, ALateReaderSeesWhatIsCommittedAfterItsOpen) {
    Inbox early;
    Inbox late;
    openReader("early", early);
    commit("1");
    ASSERT_TRUE(early.waitForSize(1));
    openReader("late", late);
    commit("2");
    ASSERT_TRUE(early.waitForSize(2));
    ASSERT_TRUE(late.waitForSize(1));
    EXPECT_EQ(text(late.takeAll().at(0)), "2");
}

TEST_F(PubSubTest, TwoProcessesExchangeSamples) {
    Inbox inbox;
    openReader("reader", inbox);
    HelperProcess writer("ChannelPeerHelper", peerArgs("write"));
    HelperProcess reader("ChannelPeerHelper", peerArgs("read"));
    joined(writer);
    joined(reader);
    EXPECT_EQ(mWriter->getReaderCount(), 2u);
    for (int i = 0; i < 20; ++i) {
        commit("number " + std::to_string(i));
        ASSERT_TRUE(reader.waitForLine("got number " + std::to_string(i)));
        ASSERT_TRUE(writer.writeLine("commit"));
        ASSERT_TRUE(writer.waitForLine("committed"));
        ASSERT_TRUE(inbox.waitForSize(2));
        EXPECT_EQ(text(inbox.takeAll().at(1)), std::string("peer\0", 5));
    }
    writer.closeInput();
    EXPECT_EQ(writer.wait(), 0);
    reader.closeInput();
    EXPECT_EQ(reader.wait(), 0);
    EXPECT_TRUE(waitUntilAllFree());
    EXPECT_EQ(mWriter->getReaderCount(), 1u);
}

TEST_F(PubSubTest, AWriterKilledWhileFillingGivesItsBlockBackAndNothingElseStops) {
    Inbox inbox;
    openReader("reader", inbox);
    HelperProcess writer("ChannelPeerHelper", peerArgs("write"));
    joined(writer);
    EXPECT_EQ(busyBlocks(), 1u);
    const auto begin = std::chrono::steady_clock::now();
    writer.killAndReap();
    commit("the others go on");
    ASSERT_TRUE(inbox.waitForSize(1));
    EXPECT_EQ(busyBlocks(), 2u);
    inbox.takeAll();
    EXPECT_TRUE(waitUntilAllFree());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500))
        << "a writer has a grace of a second from its last sign of life";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(12));
    EXPECT_TRUE(mLog.has("as writer is not alive in writing state"));
}

TEST_F(PubSubTest, AReaderKilledWhileHoldingGivesItsBlocksBackAndTheOthersGoOn) {
    Inbox inbox;
    openReader("reader", inbox);
    HelperProcess holder("ChannelPeerHelper", peerArgs("keep"));
    joined(holder);
    // It gets what there is, and the writer is told so.
    for (unsigned int i = 0; i < kSmallCount; ++i) {
        commit("kept");
        ASSERT_TRUE(holder.waitForLine("got kept"));
    }
    ASSERT_TRUE(inbox.waitForSize(kSmallCount));
    inbox.takeAll();
    EXPECT_EQ(mWriter->allocate(1, 0), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    holder.killAndReap();
    Sample sample;
    ASSERT_TRUE(waitFor([&] { return (sample = mWriter->allocate(4, 0)) != nullptr; }, 5000));
    ASSERT_TRUE(mWriter->commit(sample));
    sample.reset();
    ASSERT_TRUE(inbox.waitForSize(1));
    inbox.takeAll();
    EXPECT_TRUE(waitUntilAllFree());
    EXPECT_EQ(mReleased, kSmallCount + 1);
    EXPECT_TRUE(waitFor([&] { return mWriter->getReaderCount() == 1; }));
}

TEST_F(PubSubTest, AReaderThatNeverClaimsLosesTheSampleWhenItDiesOrAfterTheLimit) {
    Inbox inbox;
    openReader("reader", inbox);
    HelperProcess silent("ChannelPeerHelper", peerArgs("read"));
    joined(silent);
    commit("connect");
    ASSERT_TRUE(silent.waitForLine("got connect"));
    ASSERT_TRUE(inbox.waitForSize(1));
    inbox.takeAll();
    ASSERT_TRUE(waitUntilAllFree());
    stop(silent);

    Sample sample = commit("late");
    ASSERT_TRUE(inbox.waitForSize(1));
    inbox.takeAll();
    BlockHeader& block = header(sample);
    sample.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(block.status.stateWord().state, BlockState::Ready) << "the living have 5 seconds";
    age(block, 5000000);
    EXPECT_TRUE(waitUntilAllFree());

    commit("never seen");
    ASSERT_TRUE(inbox.waitForSize(1));
    inbox.takeAll();
    silent.killAndReap();
    EXPECT_TRUE(waitFor([&] { return busyBlocks() == 0; }, 4000)) << "no limit for the dead";
    EXPECT_EQ(mReleased, 3u);
}

TEST_F(PubSubTest, AReaderThatWakesUpTooLateSkipsTheSample) {
    HelperProcess silent("ChannelPeerHelper", peerArgs("read"));
    joined(silent);
    commit("connect");
    ASSERT_TRUE(silent.waitForLine("got connect"));
    ASSERT_TRUE(waitUntilAllFree());
    stop(silent);
    Sample sample = commit("too late");
    BlockHeader& block = header(sample);
    sample.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    age(block, 5000000);
    ASSERT_TRUE(waitUntilAllFree());
    kill(silent.pid(), SIGCONT);
    commit("in time");
    std::string line;
    ASSERT_TRUE(silent.readLine(line));
    EXPECT_EQ(line, "got in time");
}

}  // namespace
}  // namespace OrbelTest
