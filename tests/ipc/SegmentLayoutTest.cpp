#include "ipc/SegmentLayout.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace Vantel::Orbel {
namespace {

/// Runs `work(i)` on `count` threads that start together.
template <class Work>
void together(uint32_t count, Work&& work) {
    std::atomic<uint32_t> waiting{count};
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            --waiting;
            while (waiting != 0) {
                std::this_thread::yield();
            }
            work(i);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(BlockStatusTest, OfReadersThatLeaveAtOnceExactlyOneIsLast) {
    for (int round = 0; round < 200; ++round) {
        BlockStatus status{};
        status.storeMasks({0xFF, 0xFF});
        std::atomic<int> last{0};
        together(kMaxReaders, [&](uint32_t reader) { last += status.leaveReader(reader) ? 1 : 0; });
        ASSERT_EQ(last, 1);
        ASSERT_TRUE(status.readerMasks().empty());
    }
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
    SharedField<uint32_t> count{3};
    std::atomic<int> last{0};
    together(8, [&](uint32_t) { last += count.lower() == 1 ? 1 : 0; });
    EXPECT_EQ(count.load(), 0u);
    EXPECT_EQ(last, 1);
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
