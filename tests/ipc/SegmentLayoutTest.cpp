#include "ipc/SegmentLayout.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace Vantel::Orbel {
namespace {

/// Runs `work(thread)` on two threads `rounds` times, each time set off by a spin; the one that
/// sets off waits a little longer each time, since the other sees it late. So the two really meet.
/// `between` runs alone after each round.
template <class Work, class Between>
void meet(int rounds, Work&& work, Between&& between) {
    std::atomic<int> begun{0};
    std::atomic<int> ended{0};
    std::thread other([&] {
        for (int round = 1; round <= rounds; ++round) {
            while (begun < round) {
            }
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
        while (ended < round) {
        }
        between();
    }
    other.join();
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
            status.storeMasks({0b11, 0b11});
        });
}

TEST(BlockStatusTest, WhoWasTakenOffTheMasksBeforeIsNotLast) {
    BlockStatus status{};
    EXPECT_FALSE(status.leaveReader(3)) << "nobody was waited for";
    status.storeMasks({0b1010, 0b1000});
    EXPECT_FALSE(status.leaveReader(1));
    EXPECT_TRUE(status.leaveReader(3));
    EXPECT_FALSE(status.leaveReader(3));
}

TEST(BlockStatusTest, EachStepTouchesTheMaskThatItNames) {
    BlockStatus status{};
    status.storeMasks({0b11, 0b11});
    status.dropUntold(0);
    EXPECT_EQ(status.readMask(), 0b10u);
    EXPECT_EQ(status.claimMask(), 0b11u);
    status.dropClaim(1);
    EXPECT_EQ(status.readMask(), 0b10u);
    EXPECT_EQ(status.claimMask(), 0b01u);
    status.clearClaims();
    EXPECT_EQ(status.readMask(), 0b10u);
    EXPECT_EQ(status.claimMask(), 0u);
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
}

}  // namespace
}  // namespace Vantel::Orbel
