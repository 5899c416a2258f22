#include "Vantel/Memory/CShmBuffer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

#include "Vantel/Orbel/CTime.h"
#include "tests/ipc/RingSupport.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/OpenDescriptors.h"

using OrbelTest::HelperProcess;
using OrbelTest::RawRing;
using OrbelTest::RawSegment;
using OrbelTest::ShmCleanup;
using OrbelTest::TestRecord;
using Vantel::Memory::CShmBuffer;
using Vantel::Memory::RingWord;
using Vantel::Orbel::CTime;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kEach = 10000;
#else
constexpr int kEach = 250000;
#endif

class RingTest : public testing::Test {
protected:
    bool create(CShmBuffer& ring, unsigned dataSize, unsigned nodes, unsigned threshold = 1) {
        return ring.create(mName.c_str(), dataSize, nodes, threshold);
    }
    std::unique_ptr<CShmBuffer> reader() {
        auto ring = std::make_unique<CShmBuffer>();
        EXPECT_TRUE(ring->open(mName.c_str()));
        return ring;
    }
    static int put(CShmBuffer& ring, uint64_t number, size_t words = 1) {
        auto record = TestRecord::make(0, number, words);
        return ring.put(record.data(), static_cast<unsigned>(words * 8), 0);
    }
    /// The number of the next record; -1 if there is none, -2 if it is torn.
    static long next(CShmBuffer& ring) {
        uint64_t buffer[512];
        unsigned size = 0;
        const int got = ring.get(buffer, sizeof buffer, &size);
        if (got <= 0) {
            return got == 0 ? -1 : -100 + got;
        }
        EXPECT_EQ(static_cast<unsigned>(got), size);
        return TestRecord::whole(buffer, size / 8) ? static_cast<long>(TestRecord::number(buffer))
                                                   : -2;
    }
    RawRing raw() { return RawRing(mName); }
    static bool readable(int fd, int timeoutMs = 0) {
        pollfd event{fd, POLLIN, 0};
        return poll(&event, 1, timeoutMs) == 1;
    }

    ShmCleanup mCleanup;
    std::string mName = mCleanup.name("ring");
};

TEST_F(RingTest, RefusesWhatMakesNoRing) {
    const struct {
        const char* why;
        const char* name;
        unsigned dataSize;
        unsigned nodes;
    } cases[] = {
        {"no name", nullptr, 8, 4},
        {"no data", mName.c_str(), 0, 4},
        {"one node", mName.c_str(), 8, 1},
        {"size rounds up to zero", mName.c_str(), 0xFFFFFFFF, 2},
        {"over 4 GiB", mName.c_str(), 0x10000000, 16},
        {"product wraps in 64 bits", mName.c_str(), 0xFFFFFFF8, 0xFFFFFFE8},
        {"slash in the name", "a/b", 8, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        CShmBuffer ring;
        EXPECT_FALSE(ring.create(c.name, c.dataSize, c.nodes, 1));
        char byte = 0;
        EXPECT_EQ(ring.put(&byte, 1, 0), -1);
        EXPECT_FALSE(ring.enableEvent(true));
        EXPECT_FALSE(ring.destroy());
        EXPECT_EQ(ring.readEvent(1), -1);
    }
    CShmBuffer ring;
    const uint64_t start = CTime::getCurrentMilliSecond();
    EXPECT_FALSE(ring.open(mName.c_str()));
    EXPECT_GE(CTime::getCurrentMilliSecond() - start, 1000u) << "ten attempts";
    uint64_t word = 0;
    EXPECT_EQ(ring.get(&word, 8, nullptr), -4);
}

TEST_F(RingTest, OneNodeStaysFreeAndSizesAreKeptToTheByte) {
    CShmBuffer writer;
    ASSERT_TRUE(create(writer, 12, 4));  // 16 bytes a node
    char data[17] = "0123456789abcdef";
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(writer.put(data, 16, 0), 0);
    }
    EXPECT_EQ(writer.put(data, 16, 0), -2) << "without a reader all but one, for good";
    auto late = reader();
    unsigned size = 77;
    char out[17] = {};
    EXPECT_EQ(late->get(out, 16, &size), 0) << "what was there before";

    for (unsigned length = 1; length <= 16; ++length) {
        EXPECT_EQ(writer.put(data, length, 0), 0);
        if (length > 1) {
            EXPECT_EQ(late->get(out, length - 1, &size), -3);
            EXPECT_EQ(size, length);
        }
        std::memset(out, '.', sizeof out);
        EXPECT_EQ(late->get(out, 16, &size), static_cast<int>(length));
        EXPECT_EQ(std::string(out, length + 1), std::string(data, length) + '.');
    }
    EXPECT_EQ(writer.put(data, 17, 0), -1);
    EXPECT_EQ(writer.put(nullptr, 1, 0), -1);
    EXPECT_EQ(writer.put(data, 0, 0), -1);
    EXPECT_EQ(late->get(nullptr, 1, &size), -1);
    EXPECT_EQ(late->get(out, 0, &size), -1);
    EXPECT_EQ(writer.get(out, 16, &size), -1) << "a writer is no reader";

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(writer.put(data, 1, 0), 0);
    }
    const uint64_t start = CTime::getCurrentMilliSecond();
    EXPECT_EQ(writer.put(data, 1, 20), -2);
    EXPECT_GE(CTime::getCurrentMilliSecond() - start, 20u);
}

TEST_F(RingTest, OverwriteLosesTheOldestOnly) {
    CShmBuffer writer;
    ASSERT_TRUE(create(writer, 8, 4));
    writer.setOverwrite(true);
    auto slow = reader();
    for (uint64_t i = 0; i < 103; ++i) {
        EXPECT_EQ(put(writer, i), 0);
    }
    for (long i = 99; i < 103; ++i) {
        EXPECT_EQ(next(*slow), i);
    }
    EXPECT_EQ(next(*slow), -1);
}

TEST_F(RingTest, CreateJoinsOrMakesAnewAndReadersMoveOver) {
    auto first = std::make_unique<CShmBuffer>();
    ASSERT_TRUE(create(*first, 64, 43));
    auto old = reader();
    ASSERT_EQ(put(*first, 1), 0);
    CShmBuffer second;
    ASSERT_TRUE(create(second, 64, 43));
    first.reset();
    ASSERT_EQ(put(second, 2), 0);
    EXPECT_EQ(next(*old), 1);
    EXPECT_EQ(next(*old), 2);

    // Other parameters in a segment of the same size, then of another, then by way of destroy().
    const size_t before = raw().size();
    for (const unsigned nodes : {40u, 400u}) {
        CShmBuffer other;
        ASSERT_TRUE(create(other, 72, nodes));
        EXPECT_EQ(raw().size() == before, nodes == 40);
        EXPECT_EQ(put(second, 3), 0) << "not told";
        EXPECT_EQ(next(*old), -1) << "moved over, to the new end";
        ASSERT_EQ(put(other, 4), 0);
        EXPECT_EQ(next(*old), 4);
        EXPECT_TRUE(nodes == 40 || other.destroy());
    }
    EXPECT_EQ(next(*old), -104) << "there is none any more";

    ASSERT_TRUE(create(second, 64, 43));
    raw().header().version.store(0);  // its maker has died before it was done
    raw().header().nodeCount.store(0);
    ASSERT_TRUE(create(second, 64, 43));
    EXPECT_EQ(raw().header().nodeCount.load(), 43u);
    EXPECT_TRUE(old->open(mName.c_str()));
}

TEST_F(RingTest, SignalsFromTheThresholdOnAndSurvivesEveryStateOfTheFifo) {
    const long descriptors = OrbelTest::openDescriptors();
    {
        CShmBuffer writer;
        ASSERT_TRUE(create(writer, 8, 2000, 3));
        auto sleeper = reader();
        const int fd = sleeper->getEventFd();
        ASSERT_GE(fd, 0);
        put(writer, 0);
        put(writer, 1);
        put(writer, 2);
        EXPECT_FALSE(readable(fd)) << "not enabled";
        ASSERT_TRUE(sleeper->enableEvent(true));
        next(*sleeper);
        put(writer, 3);
        EXPECT_TRUE(readable(fd));
        EXPECT_EQ(sleeper->readEvent(1000), 1);
        EXPECT_EQ(sleeper->readEvent(1000), 0);
        next(*sleeper);
        next(*sleeper);
        put(writer, 4);
        EXPECT_FALSE(readable(fd)) << "below the threshold";

        RawRing segment = raw();
        segment.reader(0).signalling.store(1);  // left by a writer that died there
        segment.reader(0).skippedSignals.store(0);
        int records = 0;
        while (!readable(fd) && ++records < 100) {
            put(writer, 5);
        }
        EXPECT_EQ(records, 12);
        segment.reader(0).signalling.store(0);

        ASSERT_EQ(fcntl(fd, F_SETPIPE_SZ, 4096), 4096);  // never drained: full, closed, tried anew
        writer.setOverwrite(true);
        for (uint64_t i = 0; i < 4200; ++i) {
            ASSERT_EQ(put(writer, i), 0);
        }
        EXPECT_EQ(sleeper->readEvent(-5), 1) << "at least one";
        EXPECT_EQ(sleeper->readEvent(5000), 1024) << "at most so many";
        while (sleeper->readEvent(1024) > 0) {
        }
        put(writer, 1);
        EXPECT_TRUE(readable(fd)) << "never again after a full FIFO";

        // A reader that is gone but not yet known to be: the write raises no SIGPIPE.
        EXPECT_TRUE(sleeper->close());
        segment.reader(0).pid.store(1);
        segment.reader(0).eventEnabled.store(1);
        EXPECT_EQ(put(writer, 1), 0);
        EXPECT_EQ(put(writer, 2), 0);
    }
    EXPECT_EQ(OrbelTest::openDescriptors(), descriptors);
}

/// Writers that wait, all records; writers that overwrite, what was not overwritten.
TEST_F(RingTest, ManyProcessesSeeEachRecordOnceInOrderAndWhole) {
    const struct {
        int writers, readers;
        std::string role, dataSize, nodes, written, read, mode;
    } cases[] = {
        {4, 4, "write", "8", "4096", std::to_string(kEach), std::to_string(kEach), "poll"},
        {4, 4, "write", "8", "1024", "10000", "10000", "sleep"},
        {3, 2, "overwrite", "512", "4", "1000000000", "20000", "lossy"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        const std::string name = mCleanup.name("ring");
        std::vector<std::unique_ptr<HelperProcess>> writers, readers;
        const auto start = [](auto& processes, const std::vector<std::string>& arguments) {
            processes.push_back(std::make_unique<HelperProcess>("RingHelper", arguments));
            ASSERT_TRUE(processes.back()->waitForLine("ready"));
        };
        for (int i = 0; i < c.writers; ++i) {
            start(writers, {c.role, name, c.dataSize, c.nodes, std::to_string(i), c.written});
        }
        for (int i = 0; i < c.readers; ++i) {
            start(readers, {"read", name, std::to_string(c.writers), c.read, c.mode});
        }
        for (auto& writer : writers) {
            writer->writeLine("go");
        }
        for (auto& process : readers) {
            std::string line;
            ASSERT_TRUE(process->readLine(line, 200000));
            EXPECT_EQ(line, "whole");
        }
        for (auto& process : writers) {
            EXPECT_TRUE(c.mode == "lossy" || process->waitForLine("done"));
        }
    }
}

TEST_F(RingTest, DeadReadersAreForgottenAndDeadWritersSkipped) {
    CShmBuffer writer;
    ASSERT_TRUE(create(writer, 64, 4));
    auto survivor = reader();
    {
        HelperProcess victim("RingHelper", {"follow", mName});
        ASSERT_TRUE(victim.waitForLine("ready"));
        kill(victim.pid(), SIGSTOP);
        for (uint64_t i = 0; i < 3; ++i) {
            EXPECT_EQ(put(writer, i), 0);
            EXPECT_EQ(next(*survivor), static_cast<long>(i));
        }
        EXPECT_EQ(put(writer, 3), -2) << "a living reader was overrun";
        victim.killAndReap();
    }
    auto record = TestRecord::make(0, 3, 1);
    EXPECT_EQ(writer.put(record.data(), 8, 20000), 0) << "held up by a dead reader";
    EXPECT_EQ(next(*survivor), 3);

    HelperProcess wedged("RingHelper", {"wedge", mName});
    ASSERT_TRUE(wedged.waitForLine("ready"));
    EXPECT_EQ(put(writer, 4), 0);
    EXPECT_EQ(next(*survivor), -1) << "skipped a living writer's record";
    wedged.killAndReap();
    EXPECT_EQ(next(*survivor), 4);
    for (uint64_t i = 5; i < 20; ++i) {  // and over its node again
        ASSERT_EQ(put(writer, i), 0);
        ASSERT_EQ(next(*survivor), static_cast<long>(i));
    }
}

TEST_F(RingTest, GoesOnWhileWritersAreKilledAtFullSpeed) {
    HelperProcess follower("RingHelper", {"follow", mName});  // opens for a second
    for (int round = 0; round < 5; ++round) {
        HelperProcess victim("RingHelper", {"write", mName, "512", "16", "1", "1000000000"});
        ASSERT_TRUE(victim.waitForLine("ready"));
        if (round == 0) {
            ASSERT_TRUE(follower.waitForLine("ready"));
        }
        victim.writeLine("go");
        std::string line;
        for (int i = 0; i < 300; ++i) {
            ASSERT_TRUE(follower.readLine(line));
            ASSERT_NE(line, "torn");
        }
        victim.killAndReap();
    }
    CShmBuffer last;
    ASSERT_TRUE(last.create(mName.c_str(), 4096, 16, 1));
    auto record = TestRecord::make(2, 4242424242, 512);
    EXPECT_EQ(last.put(record.data(), 4096, 20000), 0);
    EXPECT_TRUE(follower.waitForLine("4242424242"));
}

TEST_F(RingTest, AHeldUpWriterIsNotLappedInItsNode) {
    CShmBuffer writer;
    ASSERT_TRUE(create(writer, 64, 2));
    writer.setOverwrite(true);
    ASSERT_EQ(put(writer, 0), 0);
    HelperProcess wedged("RingHelper", {"wedge", mName});  // at position 1
    ASSERT_TRUE(wedged.waitForLine("ready"));
    ASSERT_EQ(put(writer, 2), 0);
    std::atomic<bool> lapped{false};
    std::thread put3([&] {
        EXPECT_EQ(put(writer, 3), 0);
        lapped = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(lapped) << "wrote into the record of a living writer";
    const uint64_t start = CTime::getCurrentMilliSecond();
    wedged.killAndReap();
    put3.join();
    EXPECT_LT(CTime::getCurrentMilliSecond() - start, 2500u) << "waited for the dead";
}

TEST_F(RingTest, ForgedSegmentsNeverLeadOutside) {
    using Segment = RawRing;
    const struct {
        const char* why;
        bool opens;
        void (*forge)(Segment&);
    } cases[] = {
        {"no nodes", false, [](Segment& s) { s.header().nodeCount.store(0); }},
        {"too many nodes", false, [](Segment& s) { s.header().nodeCount.store(1000); }},
        {"nodes too large", false, [](Segment& s) { s.header().nodeSize.store(1u << 30); }},
        {"the product wraps", false,
         [](Segment& s) {
             s.header().nodeSize.store(0xFFFFFFF8);
             s.header().nodeCount.store(0xFFFFFFE8);
         }},
        {"odd size", false, [](Segment& s) { s.header().nodeSize.store(12); }},
        {"not valid", false, [](Segment& s) { s.header().valid.store(0); }},
        {"sizes changed later", true, [](Segment&) {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        CShmBuffer writer;
        ASSERT_TRUE(create(writer, 64, 8));
        RawRing segment = raw();
        c.forge(segment);
        CShmBuffer opened;
        EXPECT_EQ(opened.open(mName.c_str()), c.opens);
        writer.destroy();
    }
    for (const size_t length : {0, 8, 1343, 1344}) {
        ASSERT_TRUE(RawSegment::make("/shmBuf_" + mName, length));
        CShmBuffer opened;
        EXPECT_FALSE(opened.open(mName.c_str())) << length;
        EXPECT_TRUE(create(opened, 64, 8)) << length;
        EXPECT_TRUE(opened.destroy());
    }

    CShmBuffer writer;
    ASSERT_TRUE(create(writer, 64, 8));
    auto victim = reader();
    RawRing segment = raw();
    segment.header().nodeSize.store(0xFFFFFFF8);
    segment.header().nodeCount.store(0xFFFFFFFF);
    for (const uint32_t size : {0u, 65u, 0xFFFFFFFFu}) {
        ASSERT_EQ(put(writer, 1), 0);
        segment.node(0).size.store(size);  // position 0 or 8: the stride is read anew, so set both
        segment.header().nodeSize.store(64);
        const uint64_t at = (segment.header().tail.load() - 1) % 8;
        segment.node(at).size.store(size);
        EXPECT_EQ(next(*victim), -1) << "a record of " << size << " bytes in nodes of 64";
    }
    segment.reader(0).head.store(~0ull);
    EXPECT_EQ(next(*victim), -1);
    EXPECT_EQ(put(writer, 1), 0);
    segment.reader(0).head.store(0);
    segment.header().tail.store(1ull << 62);
    EXPECT_EQ(next(*victim), -1) << "or no end at all";
    segment.reader(0).pid.store(0xFFFFFFFF);
    segment.reader(0).lastActive.store(0);
    segment.header().tail.store(20);
    EXPECT_EQ(put(writer, 1), -2);
    EXPECT_EQ(segment.reader(0).pid.load(), 0u) << "-1 is no process";
}

/// The one case that the thread sanitizer can see: all share one mapping.
TEST_F(RingTest, ThreadsShareOneHandle) {
    CShmBuffer ring;
    ASSERT_TRUE(create(ring, 64, 16));
    ASSERT_GE(ring.getEventFd(), 0);
    ASSERT_TRUE(ring.enableEvent(true));
    constexpr uint64_t kRecords = 3000;
    std::vector<std::jthread> writers;
    for (uint64_t writer = 0; writer < 4; ++writer) {
        writers.emplace_back([&ring, writer] {
            for (uint64_t number = 0; number < kRecords; ++number) {
                auto record = TestRecord::make(writer, number, 1 + number % 8);
                ASSERT_EQ(ring.put(record.data(), static_cast<unsigned>(record.size() * 8), 60000),
                          0);
            }
        });
    }
    uint64_t expected[4] = {};
    for (uint64_t left = 4 * kRecords; left > 0;) {
        uint64_t buffer[8];
        unsigned size = 0;
        if (ring.get(buffer, sizeof buffer, &size) == 0) {
            ASSERT_TRUE(readable(ring.getEventFd(), 60000)) << "a wake-up was lost";
            ring.readEvent(1024);
            continue;
        }
        ASSERT_TRUE(TestRecord::whole(buffer, size / 8));
        ASSERT_EQ(TestRecord::number(buffer), expected[TestRecord::writer(buffer)]++);
        --left;
    }
}

}  // namespace
