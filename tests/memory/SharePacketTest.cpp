// Shared packets within one process, which has one pool: the tests build on each other, in order.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Memory/InitializeMemory.h"
#include "Vantel/Memory/Packet.h"
#include "Vantel/Memory/ShareMemoryManager.h"
#include "Vantel/Memory/SharePacket.h"
#include "Vantel/Orbel/ErrorState.h"
#include "memory/share/MemoryBlock.h"
#include "memory/share/ShareDescription.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PrivateIpc.h"

using namespace Vantel::Memory;
using Vantel::Orbel::getLastErrno;

namespace {

/// The program's own IPC namespace and pool.
class SharePackets : public ::testing::Test {
protected:
    void SetUp() override {
        static const bool isPrivate = OrbelTest::enterPrivateIpc();
        if (!isPrivate) {
            GTEST_SKIP() << "no private IPC namespace";
        }
    }

    static uint32_t freeBytes() {
        uint32_t size = 0;
        ShareMemoryManager::instance()->getMemFreeSize(size);
        return size;
    }
    static OrbelTest::LogCapture& log() {
        static auto& capture = *new OrbelTest::LogCapture;
        return capture;
    }
};

TEST_F(SharePackets, UnderAnotherPolicyTheConversionsGiveThePacketBack) {
    char text[] = "text";
    const Packet packet(text, 4, Packet::FreeFunction());
    getLastErrno();
    EXPECT_EQ(SharePacket::instance()->convertDescribe(packet).getBuffer(), packet.getBuffer());
    EXPECT_EQ(getLastErrno(), 1);
    EXPECT_EQ(SharePacket::instance()->convertOriginal(packet).getBuffer(), packet.getBuffer());
    EXPECT_EQ(getLastErrno(), 1);
}

TEST_F(SharePackets, ThePoolIsMadeFromGoodArgumentsOnly) {
    log();
    SharePacket& share = *SharePacket::instance();
    initializeMemory(policyShare, nullptr, nullptr);
    getLastErrno();
    EXPECT_FALSE(share.initialPacket(nullptr));
    EXPECT_EQ(getLastErrno(), 1);
    const struct {
        const char* why;
        SharePacket::Param param;
        int error;
        const char* line;
    } cases[] = {
        {"no such role", {0, 2, 1 << 20, 4096, 0, 0}, 1, "invalid arg.\n"},
        {"no such kind", {1, 1, 1 << 20, 4096, 0, 0}, 1, "pool type not support.\n"},
        {"nothing to attach to", {}, 0, "shareMemGet failed.\n"},
        {"too much for a segment", {0, 1, 0x80000000, 4096, 0, 0}, 0, "init memory pool failed.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        const int before = log().count(c.line);
        SharePacket::Param param = c.param;
        EXPECT_FALSE(share.initialPacket(&param));
        EXPECT_EQ(getLastErrno(), c.error);
        EXPECT_EQ(log().count(c.line), before + 1);
    }
    EXPECT_EQ(ShareMemoryManager::instance()->getMemPool(), nullptr);

    SharePacket::Param param{0, 1, 1 << 20, 8192, 0, 0};
    EXPECT_TRUE(share.initialPacket(&param));
    EXPECT_TRUE(log().has("not support pagesize bigger than 4096"));
    ShareMemoryPool::Param made{};
    ShareMemoryManager::instance()->getMemPool()->getMemoryPoolParam(made);
    EXPECT_EQ(made.pageSize, 4096u);
    EXPECT_FALSE(ShareMemoryManager::instance()->removeMemPool()) << "asked for without an address";
}

TEST_F(SharePackets, ASharedPacketIsFilledFromNothingUpToItsCapacity) {
    Packet packet(5000, 0);
    EXPECT_EQ(packet.size(), 0);
    EXPECT_EQ(packet.capacity(), 8192);
    EXPECT_FALSE(SharePacket::instance()->convertDescribe(packet).valid()) << "nothing to tell of";
    std::string text(6000, 'a');
    EXPECT_EQ(packet.putBuffer(text.data(), 6000), 6000);
    EXPECT_EQ(packet.putBuffer(text.data(), 6000), 2192) << "what fits";
    EXPECT_EQ(packet.putBuffer(text.data(), 1), 0);
    EXPECT_FALSE(packet.resize(8193));
    EXPECT_TRUE(packet.resize(10));
    EXPECT_EQ(packet.putBuffer(text.data(), 10), 10);
    EXPECT_EQ(packet.size(), 20);
    EXPECT_FALSE(Packet(0, 0).valid());
    EXPECT_FALSE(SharePacket::instance()->convertDescribe(Packet()).valid());
    const Packet foreign(text.data(), 100, Packet::FreeFunction());
    EXPECT_FALSE(SharePacket::instance()->convertDescribe(foreign).valid()) << "not in the pool";
}

TEST_F(SharePackets, OnlyADescriptionWhoseWordsAgreeIsRead) {
    constexpr uint32_t kExtra = 8;
    std::vector<uint8_t> good(kShareDescriptionBytes + kExtra + 4);  // bytes behind it may follow
    const ShareDescription head{kShareHeadMagic, sizeof head + kExtra, 1, kExtra, {}};
    memcpy(good.data(), &head, sizeof head);
    memcpy(good.data() + sizeof head + kExtra, &kShareTailMagic, 4);
    ShareDescription read{};
    EXPECT_TRUE(readShareDescription(good.data(), static_cast<int>(good.size()), read));
    EXPECT_TRUE(readShareDescription(good.data(), static_cast<int>(good.size()) - 4, read));

    const struct {
        const char* why;
        uint32_t ShareDescription::*word;
        uint32_t value;
        int len;
        const char* line;
    } cases[] = {
        {"empty", &ShareDescription::magic, kShareHeadMagic, 0, "arg is invalid.\n"},
        {"short", &ShareDescription::magic, kShareHeadMagic, 79, "arg is invalid.\n"},
        {"a negative length", &ShareDescription::magic, kShareHeadMagic, -1, "len invalid.\n"},
        {"cut in the tail", &ShareDescription::magic, kShareHeadMagic, 91, "len invalid.\n"},
        {"other bytes", &ShareDescription::magic, 1, 96, "magic head is invalid.\n"},
        {"tail beyond 32 bits", &ShareDescription::tailOffset, 0xFFFFFFFE, 96, "len invalid.\n"},
        {"tail inside", &ShareDescription::tailOffset, 84, 96, "len invalid.\n"},
        {"more extra than sent", &ShareDescription::extraSize, 1 << 30, 96, "len invalid.\n"},
        {"extra that wraps", &ShareDescription::extraSize, 0xFFFFFFFF, 96, "len invalid.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        std::vector<uint8_t> forged = good;
        ShareDescription words = head;
        words.*c.word = c.value;
        memcpy(forged.data(), &words, sizeof words);
        const int before = log().count(c.line);
        EXPECT_FALSE(readShareDescription(forged.data(), c.len, read));
        EXPECT_EQ(log().count(c.line), before + 1);
    }
    good[sizeof head + kExtra] = 0;
    EXPECT_FALSE(readShareDescription(good.data(), static_cast<int>(good.size()), read));
    EXPECT_TRUE(log().has("magic tail is invalid.\n"));
    EXPECT_FALSE(readShareDescription(nullptr, 100, read));
}

TEST_F(SharePackets, AProcessHoldsABlockOnceHoweverOftenItClaimsIt) {
    const uint32_t atFirst = freeBytes();
    std::shared_ptr<MemoryBlock> block(MemoryBlock::createMemoryBlock(4096));
    uint8_t description[64];
    EXPECT_FALSE(MemoryBlock::getMemoryBlockDesc(block->getBuffer(), description, 19));
    EXPECT_FALSE(MemoryBlock::checkMemoryBlockDesc(description, 19));
    ASSERT_TRUE(MemoryBlock::getMemoryBlockDesc(block->getBuffer(), description, 64));
    std::shared_ptr<MemoryBlock> again(MemoryBlock::getMemoryBlock(description, 64));
    std::shared_ptr<MemoryBlock> onceMore(MemoryBlock::getMemoryBlock(description, 20));
    EXPECT_EQ(again, block);
    EXPECT_EQ(onceMore, block);
    again.reset();
    block.reset();
    EXPECT_LT(freeBytes(), atFirst) << "one user is left";
    ShareMemoryManager::instance()->getMemPool()->freeResourceByPid(getpid());
    EXPECT_EQ(freeBytes(), atFirst) << "the process was a holder more than once";
    onceMore.reset();  // refused by the pool, which has the block back already
    EXPECT_EQ(freeBytes(), atFirst);
}

TEST_F(SharePackets, ThreadsClaimAndDropTheSameBlocksAtOnce) {
    const uint32_t atFirst = freeBytes();
    {
        char text[] = "shared";
        Packet common(4096, 0);
        common.putBuffer(text, sizeof text);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                SharePacket& share = *SharePacket::instance();
                for (int i = 0; i < 300; ++i) {
                    Packet own(100, 0);
                    own.putBuffer(text, sizeof text);
                    const Packet ownDescription = share.convertDescribe(own);
                    const Packet again = share.convertOriginal(ownDescription);
                    const Packet other = share.convertOriginal(share.convertDescribe(common));
                    own.reset();  // the claim keeps it
                    EXPECT_STREQ(reinterpret_cast<char*>(again.getBuffer()), text);
                    EXPECT_EQ(other.getBuffer(), common.getBuffer());
                    EXPECT_STREQ(reinterpret_cast<char*>(other.getBuffer()), text);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(freeBytes(), atFirst);
}

}  // namespace
