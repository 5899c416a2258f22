// The lists of the shared pool as a process leaves them that is killed in the middle of an
// operation.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <random>

#include "memory/share/List.h"
#include "tests/support/LogCapture.h"

using namespace Vantel::Memory;

namespace {

constexpr size_t kCells = 7;
constexpr List kFree{1, 1};  // leads nowhere

/// What processes share: a head and the cells that its list may have.
struct Memory {
    List head;
    std::array<List, kCells> cells;

    ListArea area() { return {reinterpret_cast<uint8_t*>(cells.data()), sizeof cells}; }
    bool insert(size_t cell) { return listInsert(&head, &cells[cell], area()); }
    bool remove(size_t cell) { return listRemove(&head, &cells[cell], area()); }
};

Memory shared;
Memory states[16];  // of `shared`, each one that another process could have found
size_t stateCount;

void keepState(int) {
    if (stateCount == 0 || std::memcmp(&states[stateCount - 1], &shared, sizeof shared) != 0) {
        states[stateCount++] = shared;
    }
}

/// Makes the processor stop after each instruction (SIGTRAP) or go on.
void singleStep(bool on) {
    constexpr unsigned long long kTrapFlag = 0x100;
    const auto flags = __builtin_ia32_readeflags_u64();
    __builtin_ia32_writeeflags_u64(on ? flags | kTrapFlag : flags & ~kTrapFlag);
}

/// Collects the states in which `operation` on a list of `length` cells may be cut off.
template <class Operation>
void collectStates(size_t length, Operation&& operation) {
    listInit(&shared.head, nullptr);
    shared.cells.fill(kFree);
    for (size_t cell = 0; cell < length; ++cell) {
        shared.insert(cell);
    }
    stateCount = 0;
    std::signal(SIGTRAP, keepState);
    singleStep(true);
    operation();
    singleStep(false);
    ASSERT_TRUE(stateCount > 1 && stateCount < std::size(states)) << stateCount;
}

/// The others, who go on with what they find. They believe all cells below `length` to be on the
/// list but `torn`, which the killed one had in hand; that may be on the list or not.
class Others {
public:
    Others(const Memory& found, size_t length, size_t torn) : mMemory(found), mTorn(torn) {
        std::fill_n(mListed.begin(), length, true);
    }

    void goOn(uint32_t seed) {
        std::mt19937 random(seed);
        ASSERT_NO_FATAL_FAILURE(check());
        for (int step = 0; step < 40; ++step) {
            const size_t cell = random() % mListed.size();
            if (cell != mTorn && !mListed[cell]) {
                mListed[cell] = mMemory.insert(cell);
                ASSERT_TRUE(mListed[cell]);
            } else if (cell != mTorn) {
                remove(cell);  // refused at times: then it is tried again later
            }
            ASSERT_NO_FATAL_FAILURE(check());
        }
        while (!listEmpty(&mMemory.head)) {
            ASSERT_TRUE(remove(mMemory.head.next / sizeof(List)));
            ASSERT_NO_FATAL_FAILURE(check());
        }
    }

private:
    bool remove(size_t cell) {
        const bool removed = mMemory.remove(cell);
        if (removed) {
            mListed[cell] = false;
            mMemory.cells[cell] = kFree;
        }
        return removed;
    }
    void check() {
        std::array<int, kCells> found{};
        listFind(&mMemory.head, mMemory.area(), [&](const List* cell) {
            return ++found[static_cast<size_t>(cell - mMemory.cells.data())] > 1;
        });
        for (size_t cell = 0; cell < found.size(); ++cell) {
            const List& link = mMemory.cells[cell];
            ASSERT_LE(found[cell], 1) << "goes round in circles";
            if (cell != mTorn) {
                ASSERT_EQ(found[cell] == 1, mListed[cell]);
                ASSERT_TRUE(mListed[cell] || (link.prev == kFree.prev && link.next == kFree.next))
                    << "written to, though it is somebody else's by now";
            }
        }
    }

    Memory mMemory;
    std::array<bool, kCells> mListed{};
    const size_t mTorn;
};

TEST(ShareList, OthersGoOnWhereverAProcessIsKilled) {
    const OrbelTest::LogCapture log;  // free neighbours lead nowhere, with a line each
    constexpr size_t kNewCell = kCells - 1;
    for (size_t length = 0; length <= 4; ++length) {
        for (size_t cell = 0; cell <= length; ++cell) {
            const bool isNew = cell == length;
            const size_t torn = isNew ? kNewCell : cell;
            ASSERT_NO_FATAL_FAILURE(
                collectStates(length, [&] { isNew ? shared.insert(torn) : shared.remove(torn); }));
            for (size_t state = 0; state < stateCount; ++state) {
                SCOPED_TRACE(testing::Message() << (isNew ? "insertion of " : "removal of ") << torn
                                                << " of " << length << ", state " << state);
                for (uint32_t seed = 0; seed < 20; ++seed) {
                    ASSERT_NO_FATAL_FAILURE(Others(states[state], length, torn).goOn(seed));
                }
            }
        }
    }
}

}  // namespace
