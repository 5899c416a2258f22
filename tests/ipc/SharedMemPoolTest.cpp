#include "ipc/SharedMemPool.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "Vantel/Orbel/CTime.h"
#include "ipc/SharedMemory.h"
#include "tests/ipc/RawSegment.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

namespace OrbelTest {
namespace {

using namespace Vantel::Orbel;

constexpr unsigned int kPoolId = 1;
constexpr unsigned int kBlockSize = 256;
constexpr unsigned int kExtraSize = 8;
constexpr unsigned int kStride = 128 + kExtraSize;

class SharedMemPoolTest : public testing::Test {
protected:
    std::unique_ptr<SharedMemPool> unattached(unsigned int blockCount) const {
        return std::make_unique<SharedMemPool>(kPoolId, mName, kBlockSize, kExtraSize, blockCount);
    }
    std::unique_ptr<SharedMemPool> attached(unsigned int blockCount) const {
        auto pool = unattached(blockCount);
        EXPECT_TRUE(pool->init(nullptr));
        return pool;
    }
    static BlockHeader* take(SharedMemPool& pool) { return pool.allocateBlock(1, 1, 1, 1); }
    std::string segmentName() const { return "/shmipc_pool_" + mName; }
    RawSegment raw(size_t length = 0) const { return RawSegment(segmentName(), length); }

    LogCapture mLog;
    IpcCleanup mCleanup;
    const std::string mName = mCleanup.pool("orbel_pool");
};

// --------------------------------------------------------------------------------- the segment

TEST_F(SharedMemPoolTest, AFreshSegmentHasTheBytesOfTheFormat) {
    const auto pool = attached(31);
    RawSegment segment = raw();
    const size_t dataOffset = 8192;  // 104 + 31 * 136 = 4320
    EXPECT_EQ(segment.size(), dataOffset + 31 * kBlockSize);
    const uint32_t header[] = {0x5000BEF1, kBlockSize, kExtraSize, 31, kStride, dataOffset, 0, 0};
    for (size_t i = 0; i < std::size(header); ++i) {
        EXPECT_EQ(segment.at<uint32_t>(i * 4), header[i]) << "offset " << i * 4;
    }
    for (const uint32_t index : {0u, 30u}) {
        const size_t block = 104 + index * kStride;
        EXPECT_EQ(segment.at<uint32_t>(block), index << 9 | kPoolId << 4);
        EXPECT_EQ(segment.at<uint32_t>(block + 16), 0x10000000u) << "free, sequence 1";
        EXPECT_EQ(segment.at<uint32_t>(block + 20), 0u);
        EXPECT_EQ(static_cast<char*>(pool->getBlockData(index)) -
                      reinterpret_cast<char*>(pool->getBlockHeader(0)),
                  static_cast<long>(dataOffset + index * kBlockSize - 104));
    }
    EXPECT_TRUE(mLog.has("] Pool " + mName +
                         " memory initialized: blockSize=256, extraSize=8, blockCount=31\n"));
}

TEST_F(SharedMemPoolTest, ASegmentWhoseMakerDiedBeforeTheMagicIsMadeAnew) {
    attached(2);
    RawSegment segment = raw();
    std::memset(&segment.at<char>(0), 0xEE, segment.size());
    segment.at<uint32_t>(0) = 0;
    const auto pool = attached(2);
    EXPECT_EQ(mLog.count("memory initialized"), 2);
    for (unsigned int i = 0; i < 2; ++i) {
        BlockHeader* block = pool->getBlockHeader(i);
        EXPECT_EQ(block->status.stateWord().pack(), 0x10000000u);
        EXPECT_TRUE(block->status.readerMasks().empty());
        EXPECT_EQ(block->status.readerIds[7].load(), 0u);
        EXPECT_EQ(block->size.load(), 0u);
        EXPECT_EQ(block->extraData()[0], 0xEE) << "the extra data is nobody's business";
    }
    EXPECT_EQ(take(*pool), pool->getBlockHeader(0));
    EXPECT_FALSE(pool->checkAndCleanup(0)) << "and its lock works";
}

TEST_F(SharedMemPoolTest, RefusesASegmentThatIsNotItsOwn) {
    const std::string mismatch = "]Pool " + mName + " memory parameters mismatch\n";
    const struct {
        const char* why;
        size_t length;  // cut to it; 0: not cut
        size_t offset;
        uint32_t value;
        std::string line;
    } cases[] = {
        {"another block size", 0, 4, kBlockSize + 1, mismatch},
        {"another extra size", 0, 8, 0, mismatch},
        {"more blocks than fit", 0, 12, 0x7FFFFFFF, mismatch},
        {"no blocks", 0, 12, 0, mismatch},
        {"an absurd stride", 0, 16, 1, mismatch},
        {"payloads beyond the end", 0, 20, 0xFFFFF000, mismatch},
        {"too short by a byte", 4096 + 4 * kBlockSize - 1, 0, kPoolMagic, mismatch},
        {"too short for a header", 10, 0, 0, mismatch},
        {"a foreign magic", 0, 0, 0xBADC0DE, "]Invalid pool magic: 0xbadc0de\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        attached(4);
        RawSegment segment = raw(c.length);
        segment.at<uint32_t>(c.offset) = c.value;
        const std::string before = segment.bytes();
        const int lines = mLog.count(c.line);
        EXPECT_FALSE(unattached(4)->init(nullptr));
        EXPECT_EQ(mLog.count(c.line), lines + 1);
        EXPECT_EQ(before, segment.bytes()) << "the segment was touched";
        EXPECT_TRUE(segment.remove());
    }
    EXPECT_EQ(mLog.count("]Failed to initialize pool memory\n"), 9);

    SharedMemPool large(kPoolId, mName, 1u << 13, 0, 1u << 20);
    EXPECT_FALSE(large.init(nullptr)) << "8 GiB wrap around to 0";
    EXPECT_TRUE(mLog.has("]Failed to create pool shared memory: " + segmentName() + "\n"));
    EXPECT_NE(access(("/dev/shm" + segmentName()).c_str(), F_OK), 0);
    EXPECT_EQ(take(large), nullptr);
}

TEST_F(SharedMemPoolTest, ASignalWhileItWaitsForTheProcessMutexChangesNothing) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    CProcessMutex other(mName.c_str());
    ASSERT_TRUE(other.enter());
    std::atomic<int> result{-1};
    std::thread starter([&] { result = unattached(1)->init(nullptr) ? 1 : 0; });
    EXPECT_TRUE(waitFor([&] {
        pthread_kill(starter.native_handle(), SIGUSR1);
        return mLog.count("process mutex enter failed") >= 3 || result != -1;
    }));
    EXPECT_EQ(result, -1) << "went on without the lock";
    EXPECT_TRUE(other.leave());
    starter.join();
    EXPECT_EQ(result, 1);
}

TEST_F(SharedMemPoolTest, AfterDeInitAllFailsSoftlyAndAHeldMappingStays) {
    auto pool = attached(1);
    BlockHeader* block = take(*pool);
    auto* payload = static_cast<char*>(pool->getBlockData(0));
    const std::shared_ptr<SharedMemory> held = pool->memory();
    EXPECT_TRUE(pool->deInit());
    EXPECT_TRUE(pool->deInit());
    EXPECT_EQ(take(*pool), nullptr);
    EXPECT_FALSE(pool->releaseBlock(block));
    EXPECT_FALSE(pool->releaseBlock(block, 2));
    EXPECT_EQ(pool->getBlockHeader(0), nullptr);
    EXPECT_EQ(pool->getBlockData(0), nullptr);
    EXPECT_EQ(pool->getBlockHeaderByData(payload), nullptr);
    EXPECT_FALSE(pool->containsBlock(block));
    EXPECT_FALSE(pool->checkAndCleanup(0));
    pool->diagnoseStatus(0);
    EXPECT_EQ(mLog.count("Diagnosis"), 0);

    pool.reset();
    payload[0] = 'x';
    EXPECT_EQ(block->status.stateWord().state, BlockState::Writing);
    EXPECT_EQ(take(*attached(1)), nullptr) << "a later run finds what was left";
    EXPECT_TRUE(mLog.has("] Pool " + mName + " memory already initialized\n"));
}

// ----------------------------------------------------------------------------------- the blocks

TEST_F(SharedMemPoolTest, ABlockIsTakenClearedAndGivenBack) {
    const auto pool = attached(2);
    BlockHeader* block = pool->allocateBlock(0xABCDEF, 5, 0x1F00F, 77);
    ASSERT_NE(block, nullptr);
    BlockStatus& status = block->status;
    EXPECT_EQ(status.stateWord().pack(), (StateWord{BlockState::Writing, 5, 0x1F00F, 2}.pack()));
    status.storeMasks({3, 1});
    status.writeRef.store(4);
    status.readRef.store(5);
    status.readerIds[7].store(6);

    EXPECT_TRUE(pool->releaseBlock(block, 2));
    EXPECT_EQ(status.stateWord().pack(), uint64_t{3} << 28) << "free, no owner, next sequence";
    EXPECT_TRUE(pool->releaseBlock(block, 2)) << "idempotent";
    EXPECT_TRUE(mLog.has("] poolId 1,block 0 already freed\n"));

    EXPECT_EQ(take(*pool), pool->getBlockHeader(1)) << "not the same at once";
    const uint64_t before = CTime::getCurrentMicroSecond();
    ASSERT_EQ(pool->allocateBlock(0xFEED, 6, 2, 78), block);
    EXPECT_TRUE(status.readerMasks().empty());
    EXPECT_EQ(status.writeRef.load() + status.readRef.load() + status.readerIds[7].load(), 0u);
    EXPECT_EQ(status.writerId.load(), 0xFEEDu);
    EXPECT_EQ(status.channelId.load(), 78u);
    EXPECT_GE(status.timestamp.load(), before);

    EXPECT_FALSE(pool->releaseBlock(block, 2)) << "of an earlier incarnation";
    EXPECT_TRUE(mLog.has("]poolId 1 block 0 header sequence 4 not equal 2\n"));
    EXPECT_EQ(status.stateWord().pack(), (StateWord{BlockState::Writing, 6, 2, 4}.pack()));
    EXPECT_TRUE(pool->releaseBlock(block)) << "whatever its sequence";
    EXPECT_EQ(status.stateWord().sequence, 5u);
    EXPECT_FALSE(pool->releaseBlock(nullptr));
    EXPECT_FALSE(pool->releaseBlock(nullptr, 1));
}

TEST_F(SharedMemPoolTest, AFullPoolGivesNullInOnePassAndKeepsItsHint) {
    const auto pool = attached(3);
    RawSegment segment = raw();
    uint32_t& hint = segment.at<uint32_t>(24);
    std::vector<BlockHeader*> blocks;
    while (BlockHeader* block = take(*pool)) {
        blocks.push_back(block);
    }
    ASSERT_EQ(blocks.size(), 3u);
    hint = 2;
    EXPECT_EQ(take(*pool), nullptr);
    EXPECT_EQ(hint, 2u);
    ASSERT_TRUE(pool->releaseBlock(blocks[1]));
    EXPECT_EQ(take(*pool), blocks[1]) << "past the end and on from the start";

    for (const uint32_t forged : {3u, 0x80000000u, 0xFFFFFFFFu}) {
        hint = forged;
        EXPECT_EQ(take(*pool), nullptr);
        pool->releaseBlock(blocks[2]);
        EXPECT_EQ(take(*pool), blocks[2]);
    }
    EXPECT_EQ(mLog.count("[error]"), 0) << "exhaustion is silent";

    SharedMemPool empty(kPoolId, mCleanup.pool("orbel_pool"), 64, 0, 0);
    ASSERT_TRUE(empty.init(nullptr));
    EXPECT_EQ(take(empty), nullptr);
}

TEST_F(SharedMemPoolTest, FindsABlockByIndexAddressAndPayload) {
    const auto pool = attached(3);
    BlockHeader* const first = pool->getBlockHeader(0);
    BlockHeader* const last = pool->getBlockHeader(2);
    EXPECT_EQ(pool->getBlockHeader(3), nullptr);
    EXPECT_EQ(pool->getBlockData(3), nullptr);
    EXPECT_EQ(pool->getBlockData(UINT32_MAX), nullptr);

    auto* const payload = static_cast<char*>(pool->getBlockData(0));
    const struct {
        const char* why;
        const void* data;
        BlockHeader* block;
    } cases[] = {
        {"start", payload, first},
        {"middle", payload + kBlockSize + 100, pool->getBlockHeader(1)},
        {"last byte", payload + 3 * kBlockSize - 1, last},
        {"one beyond", payload + 3 * kBlockSize, nullptr},
        {"one before", payload - 1, nullptr},
        {"null", nullptr, nullptr},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(pool->getBlockHeaderByData(c.data), c.block) << c.why;
    }

    const auto shifted = [first](long bytes) {
        return reinterpret_cast<BlockHeader*>(reinterpret_cast<uintptr_t>(first) +
                                              static_cast<uintptr_t>(bytes));
    };
    EXPECT_TRUE(pool->containsBlock(first));
    EXPECT_TRUE(pool->containsBlock(last));
    EXPECT_FALSE(pool->containsBlock(shifted(128))) << "the extra data";
    EXPECT_FALSE(pool->containsBlock(shifted(3L * kStride)));
    EXPECT_FALSE(pool->containsBlock(shifted(-static_cast<long>(kStride))));
    EXPECT_FALSE(pool->containsBlock(nullptr));
}

TEST_F(SharedMemPoolTest, ThreadsNeverShareABlockNorLoseOne) {
    constexpr int kRounds = 5000;
    constexpr unsigned int kBlocks = 6;
    const auto one = attached(kBlocks);
    const auto two = attached(kBlocks);  // the view of another process, at another address
    std::atomic<int> holders[kBlocks] = {};
    std::atomic<uint64_t> taken{0};
    std::atomic<int> clashes{0};
    std::vector<std::jthread> threads;
    for (unsigned long self = 1; self <= 4; ++self) {
        threads.emplace_back([&, self] {
            SharedMemPool& pool = self % 2 == 0 ? *one : *two;
            for (int round = 0; round < kRounds;) {
                BlockHeader* first = pool.allocateBlock(self, 1, 1, 1);
                BlockHeader* second = pool.allocateBlock(self, 1, 1, 1);
                for (BlockHeader* block : {first, second}) {
                    if (block == nullptr) {
                        continue;
                    }
                    std::atomic<int>& holder = holders[block->locationWord().blockIndex];
                    clashes += holder.fetch_add(1) != 0 ? 1 : 0;
                    clashes += block->status.writerId.load() != self ? 1 : 0;
                    --holder;
                    const StateWord word = block->status.stateWord();
                    clashes += pool.releaseBlock(block, word.sequence) ? 0 : 1;
                    ++taken;
                    ++round;
                }
            }
        });
    }
    threads.clear();
    EXPECT_EQ(clashes, 0);
    uint64_t changes = 0;
    for (unsigned int i = 0; i < kBlocks; ++i) {
        const StateWord word = one->getBlockHeader(i)->status.stateWord();
        EXPECT_EQ(word.state, BlockState::Free);
        changes += word.sequence - 1;
    }
    EXPECT_EQ(changes, 2 * taken) << "one for each take and each give";
}

TEST_F(SharedMemPoolTest, OfManyReleasesOfOneIncarnationOneMovesIt) {
    const auto pool = attached(1);
    for (int round = 0; round < 200; ++round) {
        BlockHeader* block = take(*pool);
        ASSERT_NE(block, nullptr);
        const uint64_t sequence = block->status.stateWord().sequence;
        std::atomic<int> released{0};
        {
            const std::jthread other([&] { released += pool->releaseBlock(block, sequence); });
            released += pool->releaseBlock(block, sequence);
        }
        ASSERT_EQ(released, 2) << "both may say that it is free";
        ASSERT_EQ(block->status.stateWord().sequence, sequence + 1);
    }
}

TEST_F(SharedMemPoolTest, TheInFlightHoldIsTakenOnceAndOnlyForItsSequence) {
    const auto pool = attached(2);
    EXPECT_FALSE(pool->takeInFlight(0, 0)) << "never armed";
    pool->armInFlight(0, 9);
    EXPECT_FALSE(pool->takeInFlight(1, 9));
    EXPECT_FALSE(pool->takeInFlight(0, 7)) << "stale";
    EXPECT_TRUE(pool->takeInFlight(0, 9));
    EXPECT_FALSE(pool->takeInFlight(0, 9)) << "taken";
    pool->armInFlight(2, 9);
    EXPECT_FALSE(pool->takeInFlight(2, 9)) << "no such block";
}

}  // namespace
}  // namespace OrbelTest
