#include "ipc/SegmentLayout.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace Vantel::Orbel {
namespace {

// ------------------------------------------------ words, as other processes see them, bit by bit

TEST(StateWordTest, PacksToTheBitsOfTheFormat) {
    const struct {
        StateWord word;
        uint64_t bits;
    } cases[] = {
        {{BlockState::Free, 0, 0, 1}, 0x10000000},
        {{BlockState::Writing, 1, 1, 2}, 0x20000000 | 1 << 10 | 1 << 4 | 1},
        {{BlockState::Ready, 63, 0x3FFFF, StateWord::kMaxSequence}, 0xFFFFFFFFFFFFFFF2},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.word.pack(), c.bits);
        EXPECT_EQ(StateWord::unpack(c.bits).pack(), c.bits);
    }
    EXPECT_EQ((StateWord{BlockState::Writing, 64 + 5, 0x40000 + 7, 0}.pack()),
              (StateWord{BlockState::Writing, 5, 7, 0}.pack()))
        << "a field too large reached its neighbour";
    // A word that no writer made keeps all its bits, so that a swap against it can succeed.
    EXPECT_EQ(StateWord::unpack(0x123456789ABCDEFF).pack(), 0x123456789ABCDEFFu);

    const StateWord last{BlockState::Ready, 7, 99, StateWord::kMaxSequence};
    EXPECT_EQ(last.nextFree().pack(), 0u) << "the sequence wraps and spills nothing";
}

TEST(LocationWordTest, PacksToTheBitsOfTheFormat) {
    EXPECT_EQ((LocationWord{2, 31, 1}.pack()), 1u << 9 | 31u << 4 | 2u);
    EXPECT_EQ((LocationWord{16 + 1, 32 + 3, 0}.pack()), (LocationWord{1, 3, 0}.pack()));
    EXPECT_EQ(LocationWord::unpack(0xFFFFFFFF).pack(), 0xFFFFFFFFu);
    EXPECT_EQ(LocationWord::unpack(0xFFFFFE00).blockIndex, (1u << 23) - 1);
}

TEST(WriterTagTest, FoldsAllBitsAndIsNeverZero) {
    EXPECT_EQ(writerTag(0), 1u);
    EXPECT_EQ(writerTag(0x40000), 1u) << "bit 18";
    EXPECT_EQ(writerTag(uint64_t{1} << 63), 1u << 9);
    EXPECT_EQ(writerTag(0x3FFFF), 0x3FFFFu);
    EXPECT_EQ(writerTag(0x5 | 0x5 << 18), 1u) << "a fold of 0";
}

TEST(PoolGeometryTest, RefusesWhatItsFieldsCannotHold) {
    const struct {
        const char* why;
        PoolGeometry geometry;
        bool valid;
    } cases[] = {
        {"an empty pool", {64, 0, 0}, true},
        {"the largest index", {1, 0, kMaxBlocks}, true},
        {"one block more", {1, 0, kMaxBlocks + 1}, false},
        {"payload of 4 GiB", {1u << 20, 0, 4096}, false},
        {"just below 4 GiB", {1u << 20, 0, 4095}, true},
        {"headers of 4 GiB", {1, 1u << 20, 4096}, false},
        {"everything at its limit", {UINT32_MAX, UINT32_MAX, UINT32_MAX}, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.geometry.valid(), c.valid) << c.why;
    }
    EXPECT_EQ((PoolGeometry{4096, 0, 0}.segmentSize()), 4096u);
    EXPECT_EQ((PoolGeometry{4096, 0, 31}.segmentSize()), 4096u + 31 * 4096) << "4072 rounds up";
    EXPECT_EQ((PoolGeometry{4096, 24, 27}.dataOffset()), 8192u) << "104 + 27 * 152 = 4208";
    EXPECT_EQ((PoolGeometry{256, 5, 3}.headerOffset(2)), 104u + 2 * 133) << "odd, not rounded";
}

// ------------------------------------------------------------------- steps that parties race for

/// Spins, as long as what it waits for is near; or else the other needs this processor.
template <class Condition>
void spinUntil(Condition&& condition) {
    for (int turn = 0; !condition(); ++turn) {
        if (turn > 2000) {
            std::this_thread::yield();
        }
    }
}

/// Runs `work(thread)` on two threads `rounds` times, each time set off by a spin; the one that
/// sets off waits a little longer each time, since the other sees it late. So the two really meet.
/// `between` runs alone after each round.
template <class Work, class Between>
void meet(int rounds, Work&& work, Between&& between) {
    std::atomic<int> begun{0};
    std::atomic<int> ended{0};
    const std::jthread other([&] {
        for (int round = 1; round <= rounds; ++round) {
            spinUntil([&] { return begun >= round; });
            work(1u);
            ended = round;
        }
    });
    for (int round = 1; round <= rounds; ++round) {
        begun = round;
        for (int delay = round % 200; delay > 0; --delay) {
            std::atomic_signal_fence(std::memory_order_seq_cst);  // keeps the loop
        }
        work(0u);
        spinUntil([&] { return ended >= round; });
        between();
    }
}

TEST(BlockStatusTest, OfReadersThatLeaveAtOnceExactlyOneIsLast) {
    BlockStatus status{};
    status.storeMasks({0b11, 0b11});
    std::atomic<int> last{0};
    meet(
        20000, [&](uint32_t reader) { last += status.leaveReader(reader) ? 1 : 0; },
        [&] {
            EXPECT_EQ(last.exchange(0), 1);
            EXPECT_TRUE(status.readerMasks().empty());
            EXPECT_FALSE(status.leaveReader(0)) << "was taken off the masks before";
            status.storeMasks({0b11, 0b11});
        });
}

TEST(SharedFieldTest, ACountIsNeverLoweredBelowZero) {
    SharedField<uint32_t> count{1};
    std::atomic<int> last{0};
    meet(
        20000, [&](uint32_t) { last += count.lower() == 1 ? 1 : 0; },
        [&] {
            EXPECT_EQ(last.exchange(0), 1);
            EXPECT_EQ(count.load(), 0u);
            count.store(1);
        });
}

TEST(BlockStatusTest, AClaimNeedsTheIncarnationAndAnOwnBit) {
    constexpr unsigned long kWriter = 42;
    BlockStatus status{};
    status.writerId.store(kWriter);
    status.storeMasks({0b101, 0b100});
    const struct {
        const char* why;
        BlockState state;
        unsigned int reader;
        unsigned long writer;
        unsigned long sequence;
        bool claimed;
    } cases[] = {
        {"not ready", BlockState::Writing, 0, kWriter, 9, false},
        {"index", BlockState::Ready, 8, kWriter, 9, false},
        {"no writer", BlockState::Ready, 0, 0, 9, false},
        {"other writer", BlockState::Ready, 0, kWriter + 1, 9, false},
        {"old sequence", BlockState::Ready, 0, kWriter, 8, false},
        {"not waited for", BlockState::Ready, 1, kWriter, 9, false},
        {"claimed already", BlockState::Ready, 2, kWriter, 9, false},
        {"all right", BlockState::Ready, 0, kWriter, 9, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        status.state.store(StateWord{c.state, 0, 0, 9}.pack());
        EXPECT_EQ(status.tryClaimReader(c.reader, c.writer, c.sequence), c.claimed);
        EXPECT_EQ(status.claimMask(), c.claimed ? 0b101u : 0b100u);
        EXPECT_EQ(status.readMask(), 0b101u);
        EXPECT_EQ(status.readRef.load(), c.claimed ? 1u : 0u);
    }
    status.dropUntold(0);
    EXPECT_EQ(status.readerMasks().pack(), (ReaderMasks{0b100, 0b101}).pack());
    status.dropClaim(2);
    EXPECT_EQ(status.readerMasks().pack(), (ReaderMasks{0b100, 0b001}).pack());
}

}  // namespace
}  // namespace Vantel::Orbel
