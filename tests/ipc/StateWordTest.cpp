#include "ipc/StateWord.h"

#include <gtest/gtest.h>

#include "ipc/LocationWord.h"
#include "ipc/SegmentLayout.h"

namespace Vantel::Orbel {
namespace {

/// The words as other processes, built at another time, see them: bit by bit, by hand.
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
}

TEST(StateWordTest, EachChangeMovesTheSequenceByOne) {
    const StateWord free{BlockState::Free, 0, 0, 41};
    const StateWord writing = free.nextWriting(7, 99);
    EXPECT_EQ(writing.pack(), (StateWord{BlockState::Writing, 7, 99, 42}.pack()));
    const StateWord ready = writing.next(BlockState::Ready);
    EXPECT_EQ(ready.pack(), (StateWord{BlockState::Ready, 7, 99, 43}.pack()));
    EXPECT_EQ(ready.nextFree().pack(), uint64_t{44} << 28);
    const StateWord last{BlockState::Ready, 7, 99, StateWord::kMaxSequence};
    EXPECT_EQ(last.nextFree().pack(), 0u) << "the sequence wraps and spills nothing";
}

TEST(LocationWordTest, PacksToTheBitsOfTheFormat) {
    EXPECT_EQ((LocationWord{2, 31, 1}.pack()), 1u << 9 | 31u << 4 | 2u);
    EXPECT_EQ((LocationWord{0, 0, LocationWord::kMaxBlockIndex}.pack()), 0xFFFFFE00u);
    EXPECT_EQ((LocationWord{16 + 1, 32 + 3, 0}.pack()), (LocationWord{1, 3, 0}.pack()));
    const LocationWord all = LocationWord::unpack(0xFFFFFFFF);
    EXPECT_EQ(all.action, 15u);
    EXPECT_EQ(all.poolId, 31u);
    EXPECT_EQ(all.blockIndex, (1u << 23) - 1);
}

TEST(WriterTagTest, FoldsAllBitsAndIsNeverZero) {
    EXPECT_EQ(writerTag(0), 1u);
    EXPECT_EQ(writerTag(0x40000), 1u) << "bit 18";
    EXPECT_EQ(writerTag(uint64_t{1} << 63), 1u << 9);
    EXPECT_EQ(writerTag(0x3FFFF), 0x3FFFFu);
    EXPECT_EQ(writerTag(0x5 | 0x5 << 18), 1u) << "a fold of 0";
}

}  // namespace
}  // namespace Vantel::Orbel
