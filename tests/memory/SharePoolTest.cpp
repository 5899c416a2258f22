// The shared pool as real processes see it. Each test has an IPC namespace of its own, so that
// whatever dies in it leaves nothing on the machine.

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/wait.h>

#include <cstddef>
#include <string>
#include <vector>

#include "memory/share/BlockDescription.h"
#include "memory/share/BuddyLayout.h"
#include "memory/share/ShareDescription.h"
#include "memory/share/ShareZone.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/PrivateIpc.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Memory;
using OrbelTest::HelperProcess;
using OrbelTest::waitFor;

namespace {

constexpr key_t kMetaKey = 0x111115AC;
constexpr key_t kDataKey = 0x111115AD;
constexpr size_t kBuddy = kMutexZoneSize + kReferZoneSize + kSmallMemZoneSize;
constexpr size_t kInfo = kBuddy + sizeof(ZoneHead);

class Peer : public HelperProcess {
public:
    Peer() : HelperProcess("SharePoolHelper") {}

    /// What it answers; empty if it died.
    std::string ask(const std::string& line) {
        std::string answer;
        return writeLine(line) && readLine(answer) ? answer : "";
    }
    /// For one that is expected to die of the request.
    int statusAfter(const std::string& line) {
        writeLine(line);
        return wait();
    }
};

/// The segment of a key, mapped.
class Segment {
public:
    Segment(key_t key, size_t size, int flags) : mId(shmget(key, size, flags)) {
        mBase = static_cast<uint8_t*>(shmat(mId, nullptr, 0));
    }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;
    ~Segment() { shmdt(mBase); }

    template <class Record>
    Record& at(size_t offset) {
        return *reinterpret_cast<Record*>(mBase + offset);
    }
    unsigned long attached() const {
        shmid_ds state{};
        shmctl(mId, IPC_STAT, &state);
        return state.shm_nattch;
    }

private:
    int mId;
    uint8_t* mBase;
};

class SharePool : public OrbelTest::PrivateIpcTest {
protected:
    /// A pool of 1 MiB with a creator; how much of it is free at first.
    std::string createPool(Peer& creator) {
        EXPECT_EQ(creator.ask("create 1048576 4096 0"), "yes");
        return creator.ask("free");
    }
};

TEST_F(SharePool, APacketIsReadInPlaceByTheProcessThatGetsItsDescription) {
    Peer a;
    const std::string atFirst = createPool(a);
    Peer b;
    ASSERT_EQ(b.ask("attach"), "yes");
    ASSERT_EQ(a.ask("packet 5000 10"), "0");
    const std::string description = a.ask("describe 0");
    EXPECT_EQ(description.size(), 2 * 94u);
    EXPECT_EQ(b.ask("claim " + description), "0");
    EXPECT_EQ(b.ask("text 0"), "packet 0");
    EXPECT_EQ(b.ask("extra 0"), "xxxxxxxxxx");
    b.ask("write 0 PACKET");
    EXPECT_EQ(a.ask("text 0"), "PACKET 0") << "a copy";

    EXPECT_EQ(b.ask("claim " + description), "1") << "the same block with one more user";
    b.ask("drop 0");
    a.ask("drop 0");
    EXPECT_EQ(b.ask("text 1"), "PACKET 0") << "freed under its last user";
    EXPECT_NE(a.ask("free"), atFirst);
    b.ask("drop 1");
    EXPECT_EQ(a.ask("free"), atFirst) << "block, references or small pages stayed behind";

    // The attached side makes packets too, and the creator reads them.
    ASSERT_EQ(b.ask("packet 1 0"), "2");
    EXPECT_EQ(a.ask("claim " + b.ask("describe 2")), "1");
    EXPECT_EQ(a.ask("text 1"), "packet 2");
    EXPECT_EQ(b.ask("packet 2000000 0"), "invalid") << "larger than the pool";
    EXPECT_EQ(b.ask("packet -1 0"), "invalid");
    EXPECT_EQ(b.ask("packet 1 -1"), "invalid");
}

TEST_F(SharePool, WhatTheDeadHeldAndWhatNobodyClaimedIsReclaimedByTheCleaning) {
    Peer a;
    const std::string atFirst = createPool(a);
    Peer living;
    Peer dying;
    ASSERT_EQ(living.ask("attach"), "yes");
    ASSERT_EQ(dying.ask("attach"), "yes");
    ASSERT_EQ(a.ask("packet 100 0"), "0");
    ASSERT_EQ(living.ask("claim " + a.ask("describe 0")), "0");
    const std::string oneHeld = a.ask("free");

    // Neighbours, so that the freed halves merge; nobody claims them.
    std::vector<std::string> lost;
    for (int i = 1; i <= 4; ++i) {
        ASSERT_EQ(a.ask("packet 100 0"), std::to_string(i));
        lost.push_back(a.ask("describe " + std::to_string(i)));
        a.ask("drop " + std::to_string(i));
    }
    a.ask("drop 0");
    EXPECT_NE(a.ask("free"), oneHeld) << "gone before anybody could claim it";
    EXPECT_TRUE(waitFor([&] { return a.ask("free") == oneHeld; })) << a.ask("free");
    for (const std::string& description : lost) {
        EXPECT_EQ(living.ask("claim " + description), "invalid") << "on free memory";
    }
    EXPECT_EQ(living.ask("text 0"), "packet 0") << "taken from a living holder";

    for (int i = 0; i < 3; ++i) {
        const std::string name = a.ask("packet 20000 0");
        ASSERT_EQ(dying.ask("claim " + a.ask("describe " + name)), std::to_string(i));
        a.ask("drop " + name);
    }
    dying.ask("packet 8000 0");
    dying.killAndReap();
    EXPECT_TRUE(waitFor([&] { return a.ask("free") == oneHeld; })) << a.ask("free");
    living.ask("drop 0");
    EXPECT_EQ(a.ask("free"), atFirst);
}

TEST_F(SharePool, AForgedDescriptionIsRefusedAndChangesNothing) {
    Peer a;
    const std::string atFirst = createPool(a);
    Peer b;
    ASSERT_EQ(b.ask("attach"), "yes");
    ASSERT_EQ(a.ask("packet 8192 0"), "0");
    const std::string good = a.ask("describe 0");
    constexpr uint32_t kPage = 254;  // of the block: the last ones
    constexpr size_t kBlock = offsetof(ShareDescription, block);
    constexpr size_t kOffset = kBlock + offsetof(BlockDescription, offset);
    constexpr size_t kSize = kBlock + offsetof(BlockDescription, size);
    constexpr size_t kPacketSize = offsetof(ShareDescription, packetSize);
    const auto forged = [&](size_t where, uint32_t value) {
        return "claim " + good + " " + std::to_string(where) + " " + std::to_string(value);
    };
    const struct {
        const char* why;
        size_t where;
        uint32_t value;
    } cases[] = {
        {"no block description", kBlock + offsetof(BlockDescription, magic), 0},
        {"another kind of pool", kBlock + offsetof(BlockDescription, type), 7},
        {"inside of the block", kOffset, (kPage + 1) * 4096},
        {"inside of a page", kOffset, kPage * 4096 + 64},
        {"behind the pool", kOffset, 1048576},
        {"in front of the pool", kOffset, 0xFFFFF000},
        {"a page index beyond 32 bits", kOffset, 0x7FFFF000},
        {"a free block", kOffset, 0},
        {"no size", kSize, 0},
        {"more than the block", kSize, 8193},
        {"a negative size", kSize, 0xFFFFFFFF},
        {"more in use than the block has", kPacketSize, 8193},
        {"a negative number in use", kPacketSize, 0xFFFFFFFF},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(b.ask(forged(c.where, c.value)), "invalid") << c.why;
        if (c.where != kOffset && c.where != kSize) {
            EXPECT_EQ(a.ask(forged(c.where, c.value)), "invalid") << c.why << ", in the creator";
        }
    }
    EXPECT_EQ(b.ask("claim " + good.substr(0, 100)), "unchanged") << "any packet may be handed in";
    {
        Segment meta(kMetaKey, 0, 0);
        const uint64_t nodes = kInfo + meta.at<BuddyInfo>(kInfo).nodeOffset;
        auto& node = meta.at<PageNode>(nodes + kPage * sizeof(PageNode));
        const int32_t was = std::exchange(node.order, ~7);
        EXPECT_EQ(b.ask(forged(kSize, 4096 << 7)), "invalid")
            << "a block that leads out of the pool";
        node.order = was;
    }

    EXPECT_EQ(b.ask("claim " + a.ask("describe 0")), "0") << "the pool suffered";
    EXPECT_EQ(b.ask("text 0"), "packet 0");
    b.ask("drop 0");
    a.ask("drop 0");
    EXPECT_TRUE(waitFor([&] { return a.ask("free") == atFirst; })) << a.ask("free");
}

TEST_F(SharePool, AWriteOutOfBoundsFaultsOnTheGuardedSideOnly) {
    const struct {
        const char* mode;
        std::vector<const char*> fine;
        const char* fault;
    } cases[] = {{"1", {"0", "99"}, "100"}, {"2", {"0", "99", "100"}, "-1"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        Peer peer;
        // The page size is not asked for: guards are pages of the system.
        ASSERT_EQ(peer.ask(std::string("create 1048576 1024 ") + c.mode), "yes");
        const std::string atFirst = peer.ask("free");
        ASSERT_EQ(peer.ask("guard 100"), "yes");
        for (const char* at : c.fine) {
            EXPECT_EQ(peer.ask(std::string("poke ") + at), "done");
        }
        EXPECT_EQ(peer.ask("unguard"), "done");
        EXPECT_EQ(peer.ask("unguard"), "done") << "a second time";
        EXPECT_EQ(peer.ask("free"), atFirst);
        EXPECT_EQ(peer.ask("packet 100 0"), "invalid") << "a guarded block has no offset";
        // Here the data begin where a block of its own began before.
        EXPECT_EQ(peer.ask("packet 8000 0"), "invalid");
        EXPECT_EQ(peer.ask("guard 2147483647"), "no");
        EXPECT_EQ(peer.ask("free"), atFirst);

        ASSERT_EQ(peer.ask("guard 100"), "yes");
        const int status = peer.statusAfter(std::string("poke ") + c.fault);
        // A sanitizer takes the signal and exits.
        EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGSEGV : WEXITSTATUS(status) != 0);
    }
}

TEST_F(SharePool, NobodyAttachesToWhatIsNotAWholePool) {
    Peer early;
    EXPECT_EQ(early.ask("attach"), "no") << "nobody created one";
    {
        Segment meta(kMetaKey, 65536, IPC_CREAT | 0640);  // as a creator leaves them for a moment
        Segment data(kDataKey, 65536, IPC_CREAT | 0640);
        EXPECT_EQ(early.ask("attach"), "no");
        EXPECT_EQ(meta.attached() + data.attached(), 2u) << "left attached";
    }
    {
        Peer creator;
        createPool(creator);
        creator.killAndReap();
    }
    Segment meta(kMetaKey, 0, 0);
    const struct {
        const char* why;
        size_t offset;
        uint32_t value;
    } cases[] = {
        {"first zone without a size", 0, 0},
        {"first zone beyond the segment", 0, 0xFFFFFFF8},
        {"second zone without a size", kMutexZoneSize, 0},
        {"a zone at an odd place", kMutexZoneSize, kReferZoneSize + 4},
        {"buddy zone beyond the segment", kBuddy, 0x7FFFFFF8},
        {"references not set up", kMutexZoneSize + 4, 0},
        {"buddy not set up", kBuddy + 4, 0},
        {"more data than the segment has", kInfo + offsetof(BuddyInfo, dataSize), 0x7FFFF000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        const uint32_t was = std::exchange(meta.at<uint32_t>(c.offset), c.value);
        EXPECT_EQ(early.ask("attach"), "no");
        EXPECT_EQ(meta.attached(), 1u) << "left attached";
        meta.at<uint32_t>(c.offset) = was;
    }
    EXPECT_EQ(early.ask("attach"), "yes") << "the tries before broke it";

    // A new creator starts on empty segments, whoever is on the old ones.
    ASSERT_EQ(early.ask("packet 100 0"), "0");
    Peer next;
    createPool(next);
    Peer late;
    ASSERT_EQ(late.ask("attach"), "yes");
    EXPECT_EQ(late.ask("free"), next.ask("free"));
    EXPECT_EQ(early.ask("text 0"), "packet 0") << "the old mapping went";

    // A process has its pool until its end: at exit it stays, and let go of it ends the process.
    late.closeInput();
    EXPECT_EQ(late.wait(), 0);
    EXPECT_FALSE(WIFEXITED(early.statusAfter("release")) && "goes on without a pool");
}

TEST_F(SharePool, NobodyAttachesToPartsOfTwoPools) {
    for (const char* lookUp : {"1", "2", "3"}) {
        SCOPED_TRACE(lookUp);
        Peer old;
        createPool(old);
        Peer slow;
        ASSERT_EQ(slow.ask(std::string("attachSlowly ") + lookUp), "attaching");
        Peer next;
        createPool(next);
        EXPECT_EQ(slow.ask("go on"), "no");
        EXPECT_EQ(Segment(kMetaKey, 0, 0).attached(), 2u) << "left attached";
        EXPECT_EQ(slow.ask("attach"), "yes");
    }
}

}  // namespace
