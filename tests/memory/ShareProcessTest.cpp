// The shared allocators between processes, on System V segments. In an IPC namespace of its own,
// since the keys are sums that other names may have, and one case removes what stands in its way.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/HelperProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PrivateIpc.h"
#include "tests/support/ShareAllocators.h"

namespace {

using namespace Vantel::Memory;
using OrbelTest::HelperProcess;
using OrbelTest::LogCapture;
using OrbelTest::ShareAllocators;
using OrbelTest::takeAndGiveAtRandom;

class ShareProcess : public OrbelTest::PrivateIpcTest {
protected:
    static constexpr BuddyConfig kConfig{8 << 20, 1024, 0};

    void SetUp() override {
        PrivateIpcTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        mMetadata =
            shareMemGet(kMetadata, static_cast<int32_t>(ShareAllocators::metadataSize(kConfig)),
                        kShareMemCreate);
        mData = shareMemGet(kData, kConfig.dataSize, kShareMemCreate);
        ASSERT_TRUE(mMetadata != nullptr && mData != nullptr);
        mPool = std::make_unique<ShareAllocators>(kConfig, mMetadata, mData, true);
        ASSERT_TRUE(mPool->ready());
    }

    void TearDown() override {
        mPool.reset();
        for (const auto& [key, address] : {std::pair{kMetadata, mMetadata}, {kData, mData}}) {
            if (address != nullptr) {
                EXPECT_EQ(shareMemRelease(key, address, kShareMemRemove), 0);
                EXPECT_EQ(shareMemRelease(key, address, kShareMemDetach), 0);
                EXPECT_EQ(shareMemState(key).bytes, 0U);
            }
        }
    }

    static std::vector<std::string> peer(const std::string& role, const std::string& more = "") {
        return {kMetadata, kData, role, more};
    }

    static constexpr const char* kMetadata = "/share/test/a1";
    static constexpr const char* kData = "/share/test/a2";

    LogCapture mLog;
    void* mMetadata = nullptr;
    void* mData = nullptr;
    std::unique_ptr<ShareAllocators> mPool;
};

TEST_F(ShareProcess, ProcessesAndThreadsShareTheBuddy) {
    HelperProcess first("SharePeerHelper", peer("work"));
    HelperProcess second("SharePeerHelper", peer("work"));
    ASSERT_TRUE(first.waitForLine("there") && second.waitForLine("there"));
    ASSERT_TRUE(first.writeLine("go") && second.writeLine("go"));
    bool otherWhole = false;
    std::thread other([&] { otherWhole = takeAndGiveAtRandom(*mPool, 1, 300000); });
    EXPECT_TRUE(takeAndGiveAtRandom(*mPool, 2, 300000));
    other.join();
    EXPECT_TRUE(otherWhole);
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    EXPECT_EQ(mPool->freeSize(), kConfig.dataSize);
}

TEST_F(ShareProcess, ADeadOwnerLeavesTheLockToTheNext) {
    for (const char* index : {"0", "1", "2"}) {
        const int before = mLog.count("]process exit with lock.[130]\n");
        HelperProcess owner("SharePeerHelper", peer("lock", index));
        ASSERT_TRUE(owner.waitForLine("there"));
        owner.killAndReap();
        const int32_t offset = mPool->offsetOf(mPool->take(1));
        EXPECT_EQ(mPool->refer->addRefer(mPool->refer, offset), 0);
        EXPECT_EQ(mPool->refer->releaseRefer(mPool->refer, offset), 0);
        EXPECT_EQ(mLog.count("]process exit with lock.[130]\n"), before + 1) << index;
    }
    EXPECT_EQ(mPool->freeSize(), kConfig.dataSize);
}

/// What the killed ones held without a reference is lost, as is what they were just moving; nothing
/// is given out twice, and every call comes back.
TEST_F(ShareProcess, WorkGoesOnAfterKillsAtAnyPoint) {
    std::mt19937 random(static_cast<uint32_t>(getpid()));
    MemoryRefer* const refer = mPool->refer;
    for (int round = 0; round < 12; ++round) {
        const bool refers = round % 2 == 0;
        HelperProcess victim("SharePeerHelper", peer(refers ? "referOn" : "workOn"));
        ASSERT_TRUE(victim.waitForLine("there"));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        const size_t before = mPool->freeSize();
        victim.killAndReap();
        EXPECT_TRUE(takeAndGiveAtRandom(*mPool, random(), 2000)) << round;
        for (int clean = 0; clean < 3; ++clean) {
            refer->expireClean(refer);
        }
        if (refers) {
            EXPECT_GE(mPool->freeSize() + 8 * 1024, before) << "not reclaimed";
        }
    }
}

TEST_F(ShareProcess, CleaningEndsTheReferencesOfTheDead) {
    MemoryRefer* const refer = mPool->refer;
    const int32_t mine = mPool->offsetOf(mPool->take(1024));
    refer->addRefer(refer, mine);
    const size_t before = mPool->freeSize();
    HelperProcess holder("SharePeerHelper", peer("hold"));
    ASSERT_TRUE(holder.waitForLine("there"));
    const size_t held = mPool->freeSize();
    holder.killAndReap();
    EXPECT_EQ(refer->expireClean(refer), 0);
    const size_t once = mPool->freeSize();
    EXPECT_TRUE(held < once && once < before) << "those without a description go at once";
    EXPECT_EQ(refer->expireClean(refer), 0);
    EXPECT_EQ(mPool->freeSize(), before) << "those with one after two rounds";
    EXPECT_EQ(refer->getReferCnt(refer, mine), 1);
}

TEST_F(ShareProcess, SegmentsByKey) {
    EXPECT_EQ(stringToKey(""), 0x11111111);
    EXPECT_EQ(stringToKey("}~\x7f\x80\xff"), 0x11111111 + 125);

    const char* const key = "/share/test/left";
    EXPECT_EQ(shareMemGet(key, 0, 0), nullptr);
    EXPECT_TRUE(mLog.has("]shmget failed cased by No such file or directory.\n"));
    auto* const left = static_cast<char*>(shareMemGet(key, 100, kShareMemCreate));
    ASSERT_NE(left, nullptr);
    left[0] = 'x';
    auto* const fresh = static_cast<char*>(shareMemGet(key, 200, kShareMemCreate));
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh[0], 0) << "what was left of a crashed run";
    EXPECT_EQ(shareMemState(key).bytes, 200U);
    EXPECT_EQ(left[0], 'x') << "it goes with its last user";
    // As it stands: one that is too small for the asker is removed.
    EXPECT_EQ(shareMemGet(key, 1 << 20, 0), nullptr);
    EXPECT_EQ(shareMemState(key).bytes, 0U);

    const int invalid = mLog.count("]param invalid.\n");
    EXPECT_EQ(shareMemGet(nullptr, 1, kShareMemCreate), nullptr);
    EXPECT_EQ(shareMemGet(key, 0, kShareMemCreate), nullptr);
    EXPECT_EQ(shareMemRelease(nullptr, left, kShareMemDetach), -1);
    EXPECT_EQ(shareMemRelease(kData, nullptr, kShareMemRemove), -1);
    EXPECT_EQ(mLog.count("]param invalid.\n"), invalid + 4);
    EXPECT_EQ(shareMemRelease(key, left, kShareMemRemove), -1);
    EXPECT_EQ(shareMemRelease(key, left, 3), -1);
    EXPECT_TRUE(mLog.has("]unknown flag 3.\n"));
    EXPECT_EQ(shareMemRelease(key, left, kShareMemDetach), 0);
    EXPECT_EQ(shareMemRelease(key, left, kShareMemDetach), -1);
    EXPECT_EQ(shareMemRelease(key, fresh, kShareMemDetach), 0);
    EXPECT_LT(memProtect(reinterpret_cast<void*>(1), 1, 0), 0);

    EXPECT_NE(getProcessMutex(5), nullptr);
    EXPECT_EQ(getProcessMutex(6), nullptr);
    EXPECT_TRUE(mLog.has("]get process mutex failed, id:6 > 3!\n"));
    ZoneHead unwritten{0, 0};
    EXPECT_EQ(initProcessMutex(&unwritten), -1);
}

}  // namespace
