#include "ipc/SharedMemPool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/NamedSegment.h"
#include "ipc/SharedMemory.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

namespace Vantel::Orbel {
namespace {

constexpr unsigned int kPoolId = 1;
constexpr unsigned int kBlockSize = 256;
constexpr unsigned int kExtraSize = 8;
constexpr unsigned int kStride = 128 + kExtraSize;

#ifdef __SANITIZE_ADDRESS__
constexpr bool kAlignmentIsChecked = true;  // comes with the undefined-behaviour sanitizer
#else
constexpr bool kAlignmentIsChecked = false;
#endif

class SharedMemPoolTest : public testing::Test {
protected:
    std::unique_ptr<SharedMemPool> unattached(unsigned int blockCount,
                                              unsigned int blockSize = kBlockSize,
                                              unsigned int extraSize = kExtraSize) {
        return std::make_unique<SharedMemPool>(kPoolId, mName, blockSize, extraSize, blockCount);
    }
    std::unique_ptr<SharedMemPool> attached(unsigned int blockCount) {
        auto pool = unattached(blockCount);
        EXPECT_TRUE(pool->init(nullptr));
        return pool;
    }
    std::string segmentName() const { return "/shmipc_pool_" + mName; }
    /// The segment as a stranger sees it, bytes and all; cut to `length` first if that is not 0.
    NamedSegment stranger(size_t length = 0) const {
        NamedSegment segment(segmentName());
        EXPECT_TRUE(segment.open(0644));
        EXPECT_TRUE(length == 0 || segment.resize(length));
        EXPECT_TRUE(segment.map(static_cast<size_t>(segment.length())));
        return segment;
    }
    static uint32_t word(const NamedSegment& segment, size_t offset) {
        return *reinterpret_cast<uint32_t*>(static_cast<char*>(segment.address()) + offset);
    }
    static void putWord(const NamedSegment& segment, size_t offset, uint32_t value) {
        *reinterpret_cast<uint32_t*>(static_cast<char*>(segment.address()) + offset) = value;
    }

    OrbelTest::IpcCleanup mCleanup;
    const std::string mName = mCleanup.pool("orbel_pool");
    OrbelTest::LogCapture mLog;
};

TEST_F(SharedMemPoolTest, AFreshSegmentHasTheBytesOfTheFormat) {
    const auto pool = attached(31);
    const NamedSegment segment = stranger();
    const size_t dataOffset = 8192;  // 104 + 31 * 136 = 4320
    EXPECT_EQ(segment.size(), dataOffset + 31 * kBlockSize);
    const uint32_t header[] = {0x5000BEF1, kBlockSize, kExtraSize, 31, kStride, dataOffset, 0, 0};
    for (size_t i = 0; i < std::size(header); ++i) {
        EXPECT_EQ(word(segment, i * 4), header[i]) << "offset " << i * 4;
    }
    for (const uint32_t index : {0u, 30u}) {
        const size_t block = 104 + index * kStride;
        EXPECT_EQ(word(segment, block), index << 9 | kPoolId << 4);
        EXPECT_EQ(word(segment, block + 16), 0x10000000u) << "free, sequence 1";
        EXPECT_EQ(word(segment, block + 20), 0u);
        EXPECT_EQ(static_cast<char*>(pool->getBlockData(index)) -
                      reinterpret_cast<char*>(pool->getBlockHeader(0)),
                  static_cast<long>(dataOffset + index * kBlockSize - 104));
    }
    EXPECT_TRUE(mLog.has("] Pool " + mName +
                         " memory initialized: blockSize=256, extraSize=8, blockCount=31\n"));
}

TEST_F(SharedMemPoolTest, ASegmentWhoseMakerDiedBeforeTheMagicIsMadeAnew) {
    attached(2);
    const NamedSegment segment = stranger();
    std::memset(segment.address(), 0xEE, segment.size());
    putWord(segment, 0, 0);
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
    EXPECT_EQ(pool->allocateBlock(1, 1, 1, 1), pool->getBlockHeader(0));
    EXPECT_FALSE(pool->checkAndCleanup(0)) << "and its lock works";
}

TEST_F(SharedMemPoolTest, AnOddExtraSizeIsNotRounded) {
    if (kAlignmentIsChecked) {
        GTEST_SKIP() << "headers at odd addresses are what the format says";
    }
    const auto pool = unattached(3, kBlockSize, 5);
    ASSERT_TRUE(pool->init(nullptr));
    const NamedSegment segment = stranger();
    for (const uint32_t index : {0u, 1u, 2u}) {
        EXPECT_EQ(pool->allocateBlock(index, 1, 1, 1), pool->getBlockHeader(index));
        EXPECT_EQ(word(segment, 104 + index * 133), index << 9 | kPoolId << 4);
        EXPECT_EQ(word(segment, 104 + index * 133 + 40), index) << "writer id";
        EXPECT_TRUE(pool->containsBlock(pool->getBlockHeader(index)));
    }
    EXPECT_TRUE(pool->releaseBlock(pool->getBlockHeader(1)));
    EXPECT_EQ(pool->allocateBlock(9, 1, 1, 1), pool->getBlockHeader(1));
}

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

    EXPECT_EQ(pool->allocateBlock(1, 1, 1, 1), pool->getBlockHeader(1)) << "not the same at once";
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
    const NamedSegment segment = stranger();
    std::vector<BlockHeader*> blocks;
    while (BlockHeader* block = pool->allocateBlock(1, 1, 1, 1)) {
        blocks.push_back(block);
    }
    ASSERT_EQ(blocks.size(), 3u);
    putWord(segment, 24, 2);
    EXPECT_EQ(pool->allocateBlock(1, 1, 1, 1), nullptr);
    EXPECT_EQ(word(segment, 24), 2u);
    ASSERT_TRUE(pool->releaseBlock(blocks[1]));
    EXPECT_EQ(pool->allocateBlock(1, 1, 1, 1), blocks[1]) << "past the end and on from the start";

    // The hint and the states come from anybody.
    for (const uint32_t hint : {3u, 0x80000000u, 0xFFFFFFFFu}) {
        putWord(segment, 24, hint);
        EXPECT_EQ(pool->allocateBlock(1, 1, 1, 1), nullptr);
        pool->releaseBlock(blocks[2]);
        EXPECT_EQ(pool->allocateBlock(1, 1, 1, 1), blocks[2]);
    }
    EXPECT_EQ(mLog.count("[error]"), 0) << "exhaustion is silent";

    OrbelTest::IpcCleanup cleanup;
    SharedMemPool empty(kPoolId, cleanup.pool("orbel_pool"), 64, 0, 0);
    ASSERT_TRUE(empty.init(nullptr));
    EXPECT_EQ(empty.allocateBlock(1, 1, 1, 1), nullptr);
    EXPECT_EQ(empty.calculatePoolSize(), 4096u);
}

TEST_F(SharedMemPoolTest, FindsABlockByIndexAddressAndPayload) {
    const auto pool = attached(3);
    auto* const payload = static_cast<char*>(pool->getBlockData(0));
    const struct {
        const char* why;
        const void* data;
        BlockHeader* block;
    } cases[] = {
        {"start", payload, pool->getBlockHeader(0)},
        {"middle", payload + kBlockSize + 100, pool->getBlockHeader(1)},
        {"last byte", payload + 3 * kBlockSize - 1, pool->getBlockHeader(2)},
        {"one beyond", payload + 3 * kBlockSize, nullptr},
        {"one before", payload - 1, nullptr},
        {"null", nullptr, nullptr},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(pool->getBlockHeaderByData(c.data), c.block) << c.why;
    }

    BlockHeader* first = pool->getBlockHeader(0);
    const auto shifted = [first](long bytes) {
        return reinterpret_cast<BlockHeader*>(reinterpret_cast<uintptr_t>(first) +
                                              static_cast<uintptr_t>(bytes));
    };
    EXPECT_TRUE(pool->containsBlock(first));
    EXPECT_TRUE(pool->containsBlock(pool->getBlockHeader(2)));
    EXPECT_FALSE(pool->containsBlock(shifted(128))) << "the extra data";
    EXPECT_FALSE(pool->containsBlock(shifted(3L * kStride)));
    EXPECT_FALSE(pool->containsBlock(shifted(-static_cast<long>(kStride))));
    EXPECT_FALSE(pool->containsBlock(nullptr));

    EXPECT_EQ(pool->getBlockHeader(3), nullptr);
    EXPECT_EQ(pool->getBlockData(3), nullptr);
    EXPECT_EQ(pool->getBlockData(UINT32_MAX), nullptr);
}

TEST_F(SharedMemPoolTest, AfterDeInitAllFailsSoftlyAndAHeldMappingStays) {
    auto pool = attached(1);
    BlockHeader* block = pool->allocateBlock(1, 1, 1, 1);
    auto* payload = static_cast<char*>(pool->getBlockData(0));
    ASSERT_NE(block, nullptr);
    const std::shared_ptr<SharedMemory> held = pool->memory();
    EXPECT_TRUE(pool->deInit());
    EXPECT_TRUE(pool->deInit());
    EXPECT_EQ(pool->allocateBlock(1, 1, 1, 1), nullptr);
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

    pool = attached(1);
    EXPECT_EQ(pool->allocateBlock(1, 1, 1, 1), nullptr) << "a later run finds what was left";
    EXPECT_TRUE(mLog.has("] Pool " + mName + " memory already initialized\n"));
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
        {"a foreign magic", 0, 0, 0xBADC0DE, "]Invalid pool magic: 0xbadc0de\n"},
        {"too short by a byte", 4096 + 4 * kBlockSize - 1, 0, kPoolMagic, mismatch},
        {"too short for a header", 10, 0, 0, mismatch},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        attached(4);
        const NamedSegment segment = stranger(c.length);
        putWord(segment, c.offset, c.value);
        const std::string before(static_cast<const char*>(segment.address()), segment.size());

        const int lines = mLog.count(c.line);
        const auto pool = unattached(4);
        EXPECT_FALSE(pool->init(nullptr));
        EXPECT_EQ(mLog.count(c.line), lines + 1);
        EXPECT_EQ(before, std::string(static_cast<const char*>(segment.address()), segment.size()))
            << "the segment was touched";
        if (c.offset != 0 || c.value != 0xBADC0DE) {
            EXPECT_EQ(pool->allocateBlock(1, 1, 1, 1), nullptr);
        }
        EXPECT_TRUE(segment.unlink());
    }
    EXPECT_EQ(mLog.count("]Failed to initialize pool memory\n"), 9);
}

TEST_F(SharedMemPoolTest, RefusesSizesThatDoNotFitTheFormat) {
    const auto pool = unattached(1u << 20, 1u << 13);
    EXPECT_FALSE(pool->init(nullptr)) << "8 GiB wrap around to 0";
    EXPECT_TRUE(mLog.has("]Failed to create pool shared memory: " + segmentName() + "\n"));
    EXPECT_NE(access(("/dev/shm" + segmentName()).c_str(), F_OK), 0);
    EXPECT_EQ(pool->allocateBlock(1, 1, 1, 1), nullptr);
}

TEST_F(SharedMemPoolTest, OfManyThatAttachAtOnceOneInitialises) {
    std::vector<std::thread> threads;
    std::atomic<int> attachedCount{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] { attachedCount += unattached(64)->init(nullptr) ? 1 : 0; });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(attachedCount, 8);
    EXPECT_EQ(mLog.count("memory initialized"), 1);
    EXPECT_EQ(mLog.count("memory already initialized"), 7);
}

TEST_F(SharedMemPoolTest, ASignalWhileItWaitsForTheProcessMutexChangesNothing) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    CProcessMutex other(mName.c_str());
    ASSERT_TRUE(other.enter());
    std::atomic<int> result{-1};
    std::thread starter([&] { result = unattached(1)->init(nullptr) ? 1 : 0; });
    EXPECT_TRUE(OrbelTest::waitFor([&] {
        pthread_kill(starter.native_handle(), SIGUSR1);
        return mLog.count("process mutex enter failed") >= 3 || result != -1;
    }));
    EXPECT_EQ(result, -1) << "went on without the lock";
    EXPECT_TRUE(other.leave());
    starter.join();
    EXPECT_EQ(result, 1);
}

TEST_F(SharedMemPoolTest, ThreadsNeverShareABlockNorLoseOne) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    constexpr unsigned int kBlocks = 6;
    const auto one = attached(kBlocks);
    const auto two = attached(kBlocks);  // the view of another process, at another address
    std::atomic<int> holders[kBlocks] = {};
    std::atomic<long> taken{0};
    std::atomic<int> clashes{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            SharedMemPool& pool = i % 2 == 0 ? *one : *two;
            const auto self = static_cast<unsigned long>(i) + 1;
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
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(clashes, 0);
    uint64_t changes = 0;
    for (unsigned int i = 0; i < kBlocks; ++i) {
        const StateWord word = one->getBlockHeader(i)->status.stateWord();
        EXPECT_EQ(word.state, BlockState::Free);
        changes += word.sequence - 1;
    }
    EXPECT_EQ(changes, 2 * static_cast<uint64_t>(taken)) << "one for each take and each give";
}

TEST_F(SharedMemPoolTest, OfManyReleasesOfOneIncarnationOneMovesIt) {
    const auto pool = attached(1);
    for (int round = 0; round < 200; ++round) {
        BlockHeader* block = pool->allocateBlock(1, 1, 1, 1);
        ASSERT_NE(block, nullptr);
        const uint64_t sequence = block->status.stateWord().sequence;
        std::atomic<int> released{0};
        std::thread other([&] { released += pool->releaseBlock(block, sequence) ? 1 : 0; });
        released += pool->releaseBlock(block, sequence) ? 1 : 0;
        other.join();
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
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] { taken += pool->takeInFlight(0, 9) ? 1 : 0; });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(taken, 1);
    pool->armInFlight(2, 9);
    EXPECT_FALSE(pool->takeInFlight(2, 9)) << "no such block";
}

}  // namespace
}  // namespace Vantel::Orbel
