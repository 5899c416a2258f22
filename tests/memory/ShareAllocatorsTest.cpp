// Buddy, small memory and references in one process, over memory of the heap: an access outside of
// the zones is then found by the address sanitizer.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "memory/BuddyPages.h"
#include "memory/share/LocalMemory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ShareAllocators.h"

namespace {

using namespace Vantel::Memory;
using OrbelTest::LogCapture;
using OrbelTest::ShareAllocators;

/// A pool over memory of its own.
class Pool {
public:
    explicit Pool(BuddyConfig config)
        : mMetadata((ShareAllocators::metadataSize(config) + 7) / 8),
          mData(config.dataSize / 8),
          mAllocators(new ShareAllocators(config, mMetadata.data(), mData.data(), true)) {
        EXPECT_TRUE(mAllocators->ready());
    }

    /// The tables anew, as another process makes them.
    bool attach(BuddyConfig config) {
        mAllocators.reset();
        mAllocators.reset(new ShareAllocators(config, mMetadata.data(), mData.data(), false));
        return mAllocators->ready();
    }

    const ShareAllocators* operator->() const { return mAllocators.get(); }
    uint8_t* data() { return reinterpret_cast<uint8_t*>(mData.data()); }
    BuddyInfo* info() const { return reinterpret_cast<BuddyInfo*>(mAllocators->buddyZone() + 1); }
    std::vector<uint64_t>& metadata() { return mMetadata; }
    std::vector<uint64_t>& words() { return mData; }

private:
    std::vector<uint64_t> mMetadata;
    std::vector<uint64_t> mData;
    std::unique_ptr<ShareAllocators> mAllocators;
};

/// Pages by number. A buddy that always merges what it can finds a block of order k if and only if
/// 2^k pages from a multiple of 2^k on are free.
class Model {
public:
    Model(uint32_t pages, uint32_t orders) : mFree(pages, true), mOrders(orders) {}

    bool canTake(uint32_t order) const {
        for (size_t page = 0; order < mOrders && page + (size_t{1} << order) <= mFree.size();
             page += size_t{1} << order) {
            if (isFree(page, order)) {
                return true;
            }
        }
        return false;
    }
    bool isFree(size_t page, uint32_t order) const {
        for (size_t i = page; i < page + (size_t{1} << order); ++i) {
            if (i >= mFree.size() || !mFree[i]) {
                return false;
            }
        }
        return page % (size_t{1} << order) == 0;
    }
    void mark(size_t page, uint32_t order, bool free) {
        std::fill_n(mFree.begin() + static_cast<std::ptrdiff_t>(page), size_t{1} << order, free);
    }
    size_t freePages() const {
        return static_cast<size_t>(std::count(mFree.begin(), mFree.end(), true));
    }

private:
    std::vector<bool> mFree;
    uint32_t mOrders;
};

TEST(Buddy, RandomSequencesAgreeWithAModelOfPages) {
    const LogCapture log;  // keeps thousands of refusals off the terminal
    const struct {
        uint32_t pages, limit, shift;
    } cases[] = {{64, 0, 10}, {100, 0, 12}, {37, 3, 10}, {1, 0, 10}, {255, 0, 10}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pages);
        const uint32_t pageSize = 1U << c.shift;
        Pool pool({c.pages * pageSize + 8, pageSize, c.limit});
        Model model(c.pages, pool.info()->orderNum);
        std::map<size_t, uint32_t> held;  // page -> order
        std::mt19937 random(c.pages);
        for (int step = 0; step < 4000; ++step) {
            if (random() % 2 == 0) {
                const auto order = static_cast<uint32_t>(random() % 7);
                int32_t size =
                    static_cast<int32_t>((pageSize << order) - random() % (pageSize / 2));
                auto* block = static_cast<uint8_t*>(pool->buddy->malloc(pool->buddy, &size));
                ASSERT_EQ(block != nullptr, model.canTake(order)) << step;
                if (block != nullptr) {
                    const auto page = static_cast<size_t>(block - pool.data()) >> c.shift;
                    ASSERT_EQ(size, static_cast<int32_t>(pageSize << order));
                    ASSERT_TRUE(model.isFree(page, order)) << step;
                    model.mark(page, order, false);
                    held[page] = order;
                }
            } else if (!held.empty()) {
                const auto which = std::next(held.begin(), random() % held.size());
                ASSERT_EQ(pool->give(pool.data() + (which->first << c.shift)), 0);
                model.mark(which->first, which->second, true);
                held.erase(which);
            }
            ASSERT_EQ(pool->freeSize(), model.freePages() << c.shift);
        }
        while (!held.empty()) {
            ASSERT_EQ(pool->give(pool.data() + (held.begin()->first << c.shift)), 0);
            held.erase(held.begin());
        }
        EXPECT_EQ(pool->freeSize(), pool->buddy->getTotalSize(pool->buddy));
    }
}

TEST(Buddy, PagesAreCarvedFromTheLargestOrderDown) {
    const struct {
        uint32_t pages, limit;
        std::vector<std::pair<uint32_t, uint32_t>> blocks;  // page, order
    } cases[] = {
        {1000, 0, {{0, 9}, {512, 8}, {768, 7}, {896, 6}, {960, 5}, {992, 3}}},
        {8, 2, {{0, 1}, {2, 1}, {4, 1}, {6, 1}}},
        {7, 1, {{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}, {6, 0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pages);
        Pool pool({c.pages * 1024, 1024, c.limit});
        const auto* nodes = reinterpret_cast<const PageNode*>(
            reinterpret_cast<uint8_t*>(pool.info()) + pool.info()->nodeOffset);
        std::vector<std::pair<uint32_t, uint32_t>> blocks;
        for (uint32_t page = 0; page < c.pages; ++page) {
            if (nodes[page].order != kInsideBlock) {
                blocks.emplace_back(page, static_cast<uint32_t>(nodes[page].order) - 1);
            }
        }
        EXPECT_EQ(blocks, c.blocks);
        // The last one listed is the first one taken, and of it the upper end.
        const uint32_t expected = c.limit == 0 ? 999 : c.pages - 1;
        EXPECT_EQ(pool->offsetOf(pool->take(1)), static_cast<int32_t>(expected * 1024));
    }
}

TEST(Buddy, RefusesWhatHeadsNoAllocatedBlock) {
    LogCapture log;
    Pool pool({64 * 1024, 1024, 0});
    Buddy* const buddy = pool->buddy;
    auto* const block = static_cast<uint8_t*>(pool->take(1025));
    const int32_t offset = pool->offsetOf(block);
    EXPECT_EQ(buddy->getAddress(buddy, offset), block);
    int32_t told = 0;
    EXPECT_EQ(buddy->getOffset(buddy, pool.data(), &told), -1) << "a free block's head";
    EXPECT_EQ(told, 0);
    const struct {
        int32_t offset;
        const char* line;
    } cases[] = {
        {offset + 1024, "is not a boundary of block allocated.\n"},
        {offset + 8, "]unaligned offset["},
        {64 * 1024, "]curIdx 64 greater than maxIdx 64\n"},
        {-1024, " greater than maxIdx 64\n"},
        {0, "]buddy check failed with ret [0],offset [0].\n"},
    };
    for (const auto& c : cases) {
        const int before = log.count(c.line);
        EXPECT_EQ(buddy->getAddress(buddy, c.offset), nullptr) << c.offset;
        EXPECT_EQ(log.count(c.line), before + 1) << c.line;
        EXPECT_EQ(buddy->free(buddy, pool.data() + c.offset), -1) << c.offset;
    }
    EXPECT_EQ(buddy->free(buddy, nullptr), 0);
    EXPECT_EQ(buddy->free(buddy, block), 0);
    EXPECT_EQ(pool->freeSize(), 64U * 1024);
    // It merged as an upper half, and those keep their state, as it stands.
    EXPECT_EQ(pool->offsetOf(block), offset);

    for (const int32_t size : {0, -1, INT32_MIN, 64 * 1024 + 1, INT32_MAX}) {
        const int before = log.count("greater than orderNum 7 malloc size[");
        EXPECT_EQ(pool->take(size), nullptr) << size;
        EXPECT_EQ(log.count("greater than orderNum 7 malloc size["), before + (size != 0)) << size;
    }
}

TEST(Buddy, AReadyZoneIsTakenAsItIsOrNotAtAll) {
    const LogCapture log;
    Pool pool({64 * 1024, 1024, 0});
    void* const block = pool->take(3000);
    const std::vector<uint64_t> before = pool.metadata();
    ASSERT_TRUE(pool.attach({0, 0, 0}));
    EXPECT_EQ(pool.metadata(), before);
    BuddyConfig config{};
    EXPECT_EQ(getBuddyConfig(pool->buddy, config), 0);
    EXPECT_EQ(config.orderNum, 7U);
    EXPECT_EQ(pool->give(block), 0);

    const std::pair<const char*, std::function<void(BuddyInfo&, ZoneHead&)>> damages[] = {
        {"more pages", [](BuddyInfo& info, ZoneHead&) { ++info.blockNum; }},
        {"more data", [](BuddyInfo& info, ZoneHead&) { info.dataSize += 1024; }},
        {"more of both",
         [](BuddyInfo& info, ZoneHead&) { ++info.blockNum, info.dataSize += 1024; }},
        {"other pages", [](BuddyInfo& info, ZoneHead&) { info.pageSize = 1000; }},
        {"no page size", [](BuddyInfo& info, ZoneHead&) { info.pageSize = 0; }},
        {"other shift", [](BuddyInfo& info, ZoneHead&) { info.pageShift = 40; }},
        {"more orders", [](BuddyInfo& info, ZoneHead&) { info.orderNum = 8; }},
        {"other nodes", [](BuddyInfo& info, ZoneHead&) { info.nodeOffset += 72; }},
        {"smaller zone", [](BuddyInfo&, ZoneHead& head) { head.size -= 8; }},
    };
    for (const auto& [why, damage] : damages) {
        pool.metadata() = before;
        damage(*pool.info(), *pool->buddyZone());
        EXPECT_FALSE(pool.attach({64 * 1024, 1024, 0})) << why;
    }
}

/// A damaged list may lead to what is out.
TEST(ShareAllocators, WhatIsOutIsNotGivenOutAgain) {
    LogCapture log;
    Pool pool({16 * 1024, 1024, 0});
    auto* const lists = reinterpret_cast<List*>(pool.info() + 1);
    auto* const nodes = reinterpret_cast<PageNode*>(lists + pool.info()->orderNum);
    const ListArea area = buddyPrivateArea(pool->buddy);
    void* const out = pool->take(1024);
    PageNode& node = nodes[pool->offsetOf(out) / 1024];
    listInit(&node.link, area.base);
    lists[0].next = area.offsetOf(&node.link);
    EXPECT_NE(pool->take(1024), out);
    EXPECT_TRUE(log.has("]free list 0 is damaged"));

    SmallMemory* const small = pool->smallMem;
    auto* const block = static_cast<List*>(small->alloc(small, 64));
    const ListArea data = buddyDataArea(pool->buddy);
    int32_t size = 0;
    auto* const page =
        static_cast<SmallMemPageDesc*>(pool->buddy->getPriv(pool->buddy, block, &size));
    listInit(block, data.base);
    page->freeList.next = data.offsetOf(block);
    void* const next = small->alloc(small, 64);
    EXPECT_TRUE(next != nullptr && next != block);
    EXPECT_TRUE(log.has(" are damaged and given up.\n"));
}

/// Whatever a peer writes into the segments, nothing outside of them is touched and every call
/// ends.
TEST(ShareAllocators, DamagedSegmentsLeadNowhere) {
    const LogCapture log;
    std::mt19937 random(7);
    for (int round = 0; round < 150; ++round) {
        Pool pool({32 * 1024, 1024, 0});
        MemoryRefer* const refer = pool->refer;
        std::vector<int32_t> offsets;
        for (int i = 0; i < 12; ++i) {
            void* const block = pool->take(1024 << (i % 2));
            offsets.push_back(pool->offsetOf(block));
            refer->addRefer(refer, offsets.back());
        }
        // Behind the mutexes and the sizes that the tables were made with.
        const size_t first = kMutexZoneSize / 8;
        for (int damaged = 0; damaged < 6; ++damaged) {
            std::vector<uint64_t>& area = random() % 2 == 0 ? pool.metadata() : pool.words();
            uint64_t& word = area[first + random() % (area.size() - first)];
            const uint64_t values[] = {random() % 40000, random(), ~uint64_t{0} - random() % 64,
                                       uint64_t{random()} << 32 | random(), random() % 4000 * 8};
            word = values[random() % std::size(values)];
        }
        const std::function<void(int32_t)> operations[] = {
            [&](int32_t) { offsets.push_back(pool->offsetOf(pool->take(1000))); },
            [&](int32_t offset) { refer->addRefer(refer, offset); },
            [&](int32_t offset) { refer->incDeliverRef(refer, offset); },
            [&](int32_t offset) { refer->releaseRefer(refer, offset); },
            [&](int32_t) { refer->expireClean(refer); },
            [&](int32_t) { refer->releaseByPid(refer, getpid()); },
        };
        for (int step = 0; step < 60; ++step) {
            operations[random() % std::size(operations)](offsets[random() % offsets.size()]);
        }
        pool->freeSize();
        pool->buddy->printNodeInfo(pool->buddy);
    }
}

TEST(SmallMemory, PagesComeAndGoWithTheirBlocks) {
    LogCapture log;
    for (const uint32_t pageSize : {1024U, 4096U}) {
        Pool pool({4 * pageSize, pageSize, 0});
        SmallMemory* const small = pool->smallMem;
        const size_t perPage = pageSize / 64;
        std::set<void*> blocks;
        for (size_t i = 0; i <= perPage; ++i) {
            auto* const block = static_cast<uint8_t*>(small->alloc(small, i % 2 == 0 ? 0 : 64));
            ASSERT_NE(block, nullptr);
            ASSERT_EQ((block - pool.data()) % 64, 0);
            std::memset(block, 0xff, 64);  // a block in use is the caller's
            ASSERT_TRUE(blocks.insert(block).second) << "given twice";
            ASSERT_EQ(pool->freeSize(), (i < perPage ? 3 : 2) * pageSize);
        }
        for (void* block : blocks) {
            EXPECT_EQ(small->free(small, static_cast<uint8_t*>(block) + 63), 0);
        }
        EXPECT_EQ(pool->freeSize(), 4 * pageSize);
    }
    EXPECT_EQ(log.lines().size(), 2U) << "more than the two set-ups of the mutexes";
}

TEST(SmallMemory, RefusesSizesAndPointersThatAreNotItsOwn) {
    LogCapture log;
    Pool pool({8 * 1024, 1024, 0});
    SmallMemory* const small = pool->smallMem;
    EXPECT_EQ(small->alloc(small, 65), nullptr);
    EXPECT_EQ(small->alloc(small, -1), nullptr);
    EXPECT_EQ(log.count("]inter alloc mem failed!\n"), 2);

    auto* const block = static_cast<uint8_t*>(small->alloc(small, 1));
    void* const other = small->alloc(small, 1);
    EXPECT_EQ(small->free(small, block), 0);
    EXPECT_EQ(small->free(small, block), -1);
    EXPECT_EQ(log.count("]block error, current idle!\n"), 1);
    EXPECT_EQ(small->free(small, pool->take(1024)), -1) << "no page of small memory";
    uint8_t elsewhere = 0;
    for (void* ptr : {static_cast<void*>(nullptr), static_cast<void*>(&elsewhere),
                      static_cast<void*>(pool.data() + 8 * 1024)}) {
        EXPECT_EQ(small->free(small, ptr), -1);
    }
    EXPECT_EQ(log.count("]buddy get private data failed! pageDesc ="), 3);
    EXPECT_EQ(small->free(small, other), 0);

    while (pool->take(1024) != nullptr) {
    }
    EXPECT_EQ(small->alloc(small, 1), nullptr);
    EXPECT_EQ(log.count("]create new page failed!\n"), 1);
}

class Refer : public ::testing::Test {
protected:
    int32_t block() { return mPool->offsetOf(mPool->take(1024)); }

    LogCapture mLog;
    Pool mPool{{16 * 1024, 1024, 0}};
    MemoryRefer* mRefer = mPool->refer;
    const size_t mAll = mPool->freeSize();
};

TEST_F(Refer, TheLastHolderFreesTheBlock) {
    const int32_t offset = block();
    EXPECT_EQ(mRefer->releaseRefer(mRefer, offset), -1);
    EXPECT_EQ(addReferIfKnown(mRefer, offset), -1);
    EXPECT_EQ(mRefer->addRefer(mRefer, offset), 0);
    EXPECT_EQ(addReferIfKnown(mRefer, offset), 0);
    EXPECT_EQ(mRefer->getReferCnt(mRefer, offset), 2);
    EXPECT_EQ(mRefer->releaseRefer(mRefer, offset), 0);
    EXPECT_EQ(mPool->offsetOf(mPool.data() + offset), offset) << "one holder is left";
    EXPECT_EQ(mRefer->releaseByPid(mRefer, getpid()), 0);
    EXPECT_EQ(mRefer->getReferCnt(mRefer, offset), 0);
    EXPECT_EQ(mPool->freeSize(), mAll);
    EXPECT_EQ(mRefer->releaseByPid(mRefer, getpid()), 0) << "also with nothing there";
    EXPECT_EQ(mRefer->releaseRefer(mRefer, offset), -1);
    EXPECT_EQ(mLog.count("] failed.listCount[0]"), 2);
}

TEST_F(Refer, AnUnclaimedDescriptionLastsTwoRounds) {
    EXPECT_EQ(mRefer->expireClean(mRefer), -1);
    const int32_t offset = block();
    EXPECT_EQ(mRefer->incDeliverRef(mRefer, offset), -1);
    mRefer->addRefer(mRefer, offset);
    EXPECT_EQ(mRefer->decDeliverRef(mRefer, offset), -1);
    EXPECT_EQ(mRefer->incDeliverRef(mRefer, offset), 0);
    EXPECT_EQ(mRefer->releaseRefer(mRefer, offset), 0);
    EXPECT_EQ(mRefer->releaseRefer(mRefer, offset), -1);
    EXPECT_TRUE(mLog.has("is empty"));
    EXPECT_EQ(mRefer->expireClean(mRefer), 0);
    EXPECT_LT(mPool->freeSize(), mAll);
    EXPECT_EQ(mRefer->expireClean(mRefer), 0);
    EXPECT_EQ(mPool->freeSize(), mAll);
    EXPECT_EQ(addReferIfKnown(mRefer, offset), -1) << "claimed too late";

    // Held all the time: the rounds run out without harm, and the next description has two again.
    const int32_t held = block();
    mRefer->addRefer(mRefer, held);
    mRefer->incDeliverRef(mRefer, held);
    for (int round = 0; round < 5; ++round) {
        mRefer->expireClean(mRefer);
    }
    mRefer->incDeliverRef(mRefer, held);
    mRefer->releaseRefer(mRefer, held);
    mRefer->expireClean(mRefer);
    EXPECT_LT(mPool->freeSize(), mAll);
    mRefer->expireClean(mRefer);
    EXPECT_EQ(mPool->freeSize(), mAll);
}

TEST_F(Refer, ABlockThatCouldNotBeReferredToIsNotFreedLater) {
    // 16 pages, all taken but one of small memory; its 16 blocks are used up but one.
    std::vector<int32_t> offsets;
    for (int i = 0; i < 7; ++i) {
        offsets.push_back(block());
        ASSERT_EQ(mRefer->addRefer(mRefer, offsets.back()), 0);
    }
    ASSERT_EQ(mRefer->addRefer(mRefer, offsets.back()), 0);
    const int32_t last = block();
    while (mPool->take(1024) != nullptr) {
    }
    ASSERT_EQ(mRefer->addRefer(mRefer, last), -1);
    EXPECT_TRUE(mLog.has("]allocSmallMem with size 24 failed.\n"));
    mPool->give(mPool.data() + last);
    void* const again = mPool->take(1024);
    ASSERT_EQ(mPool->offsetOf(again), last);
    mRefer->expireClean(mRefer);
    EXPECT_EQ(mPool->offsetOf(again), last) << "freed under its new holder";
}

TEST_F(Refer, OnlyAHolderReleases) {
    const int32_t offset = block();
    mRefer->addRefer(mRefer, offset);
    testing::internal::CaptureStdout();
    const pid_t child = fork();  // another process id; it touches nothing but the references
    if (child == 0) {
        const int32_t result = mRefer->releaseRefer(mRefer, offset);
        std::fflush(stdout);
        _exit(result == -1 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("has no pidnode[" + std::to_string(child) + "]."), std::string::npos) << out;
    EXPECT_EQ(status, 0);
    EXPECT_EQ(mRefer->releaseRefer(mRefer, offset), 0);
}

TEST(ShareAllocators, LocalRecordsComeFromTheHooks) {
    static int out;
    static int allowed;
    out = 0;
    const LocalMemoryHooks before = exchangeLocalMemoryHooks(
        {[](size_t size) { return allowed-- > 0 ? ++out, std::malloc(size) : nullptr; },
         [](void* memory) { out -= memory != nullptr, std::free(memory); }});
    alignas(8) uint8_t zone[4096] = {};
    auto* const head = reinterpret_cast<ZoneHead*>(zone);
    head->size = sizeof zone;
    Buddy* buddy = nullptr;
    const LogCapture log;
    for (allowed = 0; allowed < 2;) {
        const int tried = allowed;
        EXPECT_EQ(createBuddy({4096, 1024, 0}, head, zone, &buddy), -1);
        EXPECT_EQ(out, 0) << "of a table that was not made";
        allowed = tried + 1;
    }
    EXPECT_EQ(createBuddy({4096, 1024, 0}, head, zone, &buddy), 0);
    EXPECT_EQ(out, 2);
    buddy->destroy(buddy);
    EXPECT_EQ(out, 0);
    EXPECT_EQ(log.count("]malloc failed.\n"), 2);
    exchangeLocalMemoryHooks(before);
}

TEST(ShareAllocatorsDeathTest, BreachesOfTheRulesEndTheProcess) {
    Pool pool({16 * 1024, 1024, 0});
    alignas(8) uint8_t zone[4096] = {};
    auto* const head = reinterpret_cast<ZoneHead*>(zone);
    head->size = sizeof zone;
    Buddy* buddy = nullptr;
    EXPECT_DEATH(pool->smallMem->destroy(pool->smallMem), "thiz == nullptr");
    EXPECT_DEATH(createBuddy({4096, 1000, 0}, head, zone, &buddy), "has_single_bit");
    EXPECT_DEATH(createBuddy({1000, 1024, 0}, head, zone, &buddy), "dataSize >= config.pageSize");
    EXPECT_DEATH(getBuddyZoneSize({0, 1024, 0}), "dataSize > 0");
    EXPECT_DEATH(listInit(nullptr, nullptr), "list != nullptr");
    EXPECT_DEATH(pool->buddy->malloc(pool->buddy, nullptr), "size != nullptr");
}

}  // namespace
