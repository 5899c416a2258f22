// The policy is decided once a process: the parts below that need one run in a process of their
// own, which is this program again.

#include "Vantel/Memory/Packet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Memory/InitializeMemory.h"
#include "Vantel/Memory/MemoryManager.h"
#include "Vantel/Orbel/ErrorState.h"
#include "memory/MemoryManagerInternal.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace Vantel::Memory;
using Vantel::Orbel::getLastErrno;

struct Counts {
    std::atomic<int> mallocs = 0;
    std::atomic<int> frees = 0;
    std::atomic<int> copies = 0;
    std::atomic<unsigned long> lastSize = 0;
} counts;

void* countedMalloc(unsigned long size) {
    ++counts.mallocs;
    counts.lastSize = size;
    return std::malloc(size);
}
void countedFree(void* block) {
    ++counts.frees;
    std::free(block);
}
void* countedMemcpy(void* to, const void* from, unsigned long size) {
    ++counts.copies;
    return std::memcpy(to, from, size);
}

MemoryOperator countedOperator() {
    return {&countedMalloc, &countedFree, &countedMemcpy};
}

/// What a release function was called with.
struct Released {
    int calls = 0;
    void* first = nullptr;
    unsigned long size = 0;
    unsigned char* extra = nullptr;

    void note(void* what, unsigned long bytes, unsigned char* extraData) {
        ++calls;
        first = what;
        size = bytes;
        extra = extraData;
    }
    Packet::FreeFunction function() { return {this, &Released::note}; }
};

/// A packet with its sizes in all its bytes, up to the last one of its capacity.
Packet filledPacket(int size, int extraSize) {
    Packet packet(size, extraSize);
    EXPECT_EQ(packet.size(), size);
    EXPECT_EQ(packet.getExtraSize(), extraSize);
    EXPECT_EQ(packet.getExtraData() == nullptr, extraSize == 0);
    std::fill_n(packet.getBuffer(), packet.capacity(), static_cast<uint8_t>(size));
    std::fill_n(static_cast<uint8_t*>(packet.getExtraData()), extraSize, extraSize);
    return packet;
}

void expectFilled(const Packet& packet) {
    const int size = packet.size();
    const int extraSize = packet.getExtraSize();
    const auto* extra = static_cast<uint8_t*>(packet.getExtraData());
    EXPECT_EQ(std::count(packet.getBuffer(), packet.getBuffer() + size, static_cast<uint8_t>(size)),
              size);
    EXPECT_EQ(std::count(extra, extra + extraSize, extraSize), extraSize);
}

/// Every byte is the packet's own, under sizes that leave the record on every remainder of eight.
void checkEveryByte() {
    std::vector<Packet> packets;
    for (int size = 0; size < 40; ++size) {
        for (int extraSize = 0; extraSize < 11; ++extraSize) {
            packets.push_back(filledPacket(size, extraSize));
        }
    }
    std::for_each(packets.begin(), packets.end(), &expectFilled);
}

/// Threads have packets of their own, and copies and slices of one, whose block goes once.
void checkThreads() {
    Packet shared = filledPacket(100, 4);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i) {
        threads.emplace_back([shared, i] {
            std::mt19937 random(i);
            std::vector<Packet> held(16);
            for (int turn = 0; turn < 5000; ++turn) {
                Packet& slot = held[random() % held.size()];
                expectFilled(slot);
                slot = filledPacket(static_cast<int>(random() % 4000), 3);
                Packet copy(shared);
                copy = Packet(copy, turn % 100, 1, 0);
            }
        });
    }
    shared.reset();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void checkSlicesAndAppending() {
    char bytes[] = "0123456789";
    Packet packet(10, 0);
    EXPECT_EQ(packet.putBuffer(bytes, 10), packet.capacity() - 10) << "a new packet is full";
    ASSERT_TRUE(packet.resize(0));
    EXPECT_EQ(packet.putBuffer(bytes, 4), 4);
    EXPECT_EQ(packet.putBuffer(bytes + 4, 6), 6);
    EXPECT_EQ(std::memcmp(packet.getBuffer(), bytes, 10), 0);
    EXPECT_EQ(packet.putBuffer(bytes, -1), 0);
    EXPECT_TRUE(packet.resize(static_cast<size_t>(packet.capacity())));
    EXPECT_FALSE(packet.resize(static_cast<size_t>(packet.capacity()) + 1));
    EXPECT_FALSE(packet.resize((size_t{1} << 32) + 1));
    packet.resize(10);

    Packet slice(packet, 3, 4, 2);
    packet.reset();
    ASSERT_TRUE(slice.valid());
    EXPECT_EQ(std::memcmp(slice.getBuffer(), "3456", 4), 0) << "the payload went with its packet";
    slice.resize(2);
    EXPECT_EQ(slice.putBuffer(bytes + 8, 5), 2);
    EXPECT_EQ(std::memcmp(slice.getBuffer(), "3489", 4), 0);

    OrbelTest::LogCapture log;
    const struct {
        int offset;
        int size;
        int extraSize;
        bool valid;
    } cases[] = {{0, 0, 0, true},   {0, 4, 0, true},        {3, 1, 0, true},
                 {4, 0, 0, false},  {3, 2, 0, false},       {-1, 2, 0, false},
                 {1, -1, 0, false}, {1, INT_MAX, 0, false}, {1, 1, -1, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(Packet(slice, c.offset, c.size, c.extraSize).valid(), c.valid)
            << c.offset << " " << c.size;
    }
    EXPECT_TRUE(log.has("]offset or size invalid，packet size(4),offset(4),size(0)"));
    EXPECT_FALSE(Packet(Packet(0, 0), 0, 0, 0).valid());
    EXPECT_FALSE(Packet(-1, 0).valid());
    EXPECT_FALSE(Packet(0, -1).valid());
    EXPECT_FALSE(Packet(INT_MAX, INT_MAX).valid());
}

/// What holds under each policy of this process.
void checkPackets(MemoryPolicy policy) {
    checkEveryByte();
    checkSlicesAndAppending();
    checkThreads();

    OrbelTest::LogCapture log;
    MemoryParameter bad{1, 1, 1};
    initializeMemory(policyShare, nullptr, &bad);
    EXPECT_EQ(log.count("] memory has been configured!"), 1);
    EXPECT_EQ(MemoryManagerInternal::instance().policy(), policy);
}

TEST(PacketPolicy, DISABLED_System) {
    MemoryOperator op = countedOperator();
    MemoryParameter parameter{4096, 1024, 24};  // counts as 16
    initializeMemory(policySystem, &op, &parameter);
    {
        const Packet packet(100, 3);
        EXPECT_EQ(counts.mallocs, 1);
        EXPECT_EQ(packet.capacity(), 112);
        EXPECT_EQ(counts.lastSize % 16, 0u);
        EXPECT_EQ(static_cast<uint8_t*>(packet.getExtraData()), packet.getBuffer() + 112);
    }
    EXPECT_EQ(counts.frees, 1);
    checkPackets(policySystem);
    EXPECT_EQ(counts.copies, 4);
    EXPECT_EQ(counts.mallocs, counts.frees);

    EXPECT_EQ(MemoryManager::instance()->getMemorySize(), 0xFFFFFFFF);
    EXPECT_EQ(getLastErrno(), 14);
    EXPECT_EQ(MemoryManager::instance()->getFreeSize(), 0xFFFFFFFF);
}

TEST(PacketPolicy, DISABLED_Buddy) {
    MemoryOperator op = countedOperator();
    MemoryParameter parameter{1000 * 1024, 1024, 2};
    initializeMemory(policyBuddy, &op, &parameter);
    EXPECT_EQ(counts.lastSize, 1001u * 1024) << "a chunk of slack";
    MemoryManager& manager = *MemoryManager::instance();
    EXPECT_EQ(manager.getMemorySize(), 1000u * 1024);
    EXPECT_EQ(manager.getFreeSize(), 1000u * 1024);

    // Free lists of 512, 256, 128, 64, 32 and 8 chunks in this order of place; a split gives away
    // its end.
    auto* last = static_cast<uint8_t*>(manager.malloc(1));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(last) % 1024, 0u);
    auto* base = last - 999 * 1024;
    EXPECT_EQ(manager.malloc(512 * 1024), base);
    OrbelTest::LogCapture log;
    EXPECT_EQ(manager.malloc(256 * 1024 + 1), nullptr);
    EXPECT_EQ(manager.malloc(0), nullptr);
    EXPECT_EQ(log.count("]No Free Space"), 2);
    EXPECT_EQ(manager.getFreeSize(), 487u * 1024);
    manager.free(last);
    manager.free(base);
    manager.free(nullptr);

    // The operator copies inside the region, the system what comes from or goes outside.
    char outside[16] = "abc";
    {
        const Packet packet(16, 0);
        manager.memcpy(packet.getBuffer(), outside, 16);
        EXPECT_EQ(counts.copies, 0);
        manager.memcpy(packet.getBuffer() + 8, packet.getBuffer(), 8);
        EXPECT_EQ(counts.copies, 1);
    }
    checkPackets(policyBuddy);
    EXPECT_EQ(manager.getFreeSize(), 1000u * 1024);
    EXPECT_EQ(manager.malloc(512 * 1024), base) << "the pieces did not merge";
    EXPECT_EQ(counts.mallocs, 1) << "the region is all that was asked for";
    EXPECT_DEATH(manager.free(base - 1), "id >= 0");
    EXPECT_DEATH(manager.free(base + 1000 * 1024), "id < mBlockCount");
    EXPECT_DEATH(Packet(512 * 1024, 0), "start != nullptr");
}

TEST(PacketPolicy, DISABLED_BuddySplit) {
    initializeMemory(policyBuddySplit, nullptr, nullptr);
    MemoryManager& manager = *MemoryManager::instance();
    const uint32_t all = 2 * 1024 * 1024;
    {
        const Packet packet(1023, 5000);
        EXPECT_EQ(packet.capacity(), 1023);
        const Packet empty(0, 0);
        EXPECT_TRUE(empty.valid());
        EXPECT_EQ(empty.getBuffer(), nullptr);
        EXPECT_EQ(manager.getFreeSize(), all - 1024) << "only the payload lies in the region";
    }
    checkPackets(policyBuddySplit);
    EXPECT_EQ(manager.getFreeSize(), all);
}

TEST(PacketPolicy, DISABLED_Share) {
    initializeMemory(policyShare, nullptr, nullptr);
    char bytes[8] = "abc";
    Packet wrapped(bytes, 8, Packet::FreeFunction());
    wrapped.resize(3);
    EXPECT_EQ(wrapped.putBuffer(bytes, 2), 2) << "no allocator, the system copies";
    EXPECT_FALSE(Packet(wrapped, 0, 1, 0).valid());
    EXPECT_EQ(getLastErrno(), 10);
    EXPECT_DEATH(MemoryManager::instance()->malloc(1), "mHandle != nullptr");
}

TEST(Packet, EachPolicyInAProcessOfItsOwn) {
    for (const std::string policy : {"System", "Buddy", "BuddySplit", "Share"}) {
        OrbelTest::HelperProcess child(
            "PacketTest",
            {"--gtest_filter=PacketPolicy.DISABLED_" + policy, "--gtest_also_run_disabled_tests"});
        std::string output;
        for (std::string line; child.readLine(line, 120000);) {
            output += line + "\n";
        }
        EXPECT_EQ(child.wait(), 0) << output;
        EXPECT_NE(output.find("[  PASSED  ] 1 test"), std::string::npos) << policy << output;
    }
}

TEST(Packet, WhatNoPolicyCanBe) {
    MemoryOperator noCopy = countedOperator();
    noCopy.memcpy.clear();
    const struct {
        MemoryPolicy policy;
        MemoryOperator op;
        MemoryParameter parameter;
        const char* dies;
    } cases[] = {
        {policyShare, countedOperator(), {2048, 1024, 1}, "param.alignSize >= 2"},
        {policyShare, countedOperator(), {2048, 512, 2}, "param.chunkSize >= 1024"},
        {policyShare, countedOperator(), {2049, 1024, 2}, "param.totalSize % param.chunkSize == 0"},
        {policyShare, noCopy, {2048, 1024, 2}, "!op.memcpy.empty"},
        {policyNone, countedOperator(), {2048, 1024, 2}, "Assertion"},
        {static_cast<MemoryPolicy>(5), countedOperator(), {2048, 1024, 2}, "Assertion"},
        {policyBuddy, countedOperator(), {-1024, 1024, 2}, "mOriginBuffer != nullptr"},
    };
    for (auto c : cases) {
        EXPECT_DEATH(initializeMemory(c.policy, &c.op, &c.parameter), c.dies);
    }
}

TEST(Packet, CallersAndDeferredBuffersNeedNoPolicy) {
    char bytes[32] = "wrapped";
    Released released;
    Packet slice;
    {
        Packet wrapped(bytes, 8, 4, released.function());
        Packet copy(wrapped);
        wrapped = copy;
        wrapped = wrapped;
        std::memcpy(wrapped.getExtraData(), "ext", 4);
        slice = Packet(wrapped, 2, 3, 0);
        wrapped.resize(6);
        EXPECT_EQ(copy.size(), 6) << "copies share their sizes";
    }
    EXPECT_EQ(released.calls, 0) << "the slice holds the buffer";
    EXPECT_EQ(slice.getBuffer(), reinterpret_cast<uint8_t*>(bytes) + 2);
    slice.reset();
    slice.reset();
    EXPECT_EQ(released.calls, 1);
    EXPECT_EQ(released.first, bytes);
    EXPECT_EQ(released.size, 6u);
    EXPECT_NE(released.extra, nullptr);
    const Packet largest(bytes, INT_MAX, Packet::FreeFunction());
    EXPECT_EQ(largest.capacity(), INT_MAX) << "nothing is allocated for it";
    EXPECT_EQ(Packet(largest, 1, INT_MAX - 1, 0).size(), INT_MAX - 1);
    Packet rest(largest);
    for (int i = 1; i <= 500000; ++i) {  // as a parser goes on with what is left
        rest = Packet(rest, 0, INT_MAX - i, 0);
    }
    EXPECT_EQ(rest.size(), INT_MAX - 500000);
    rest.reset();  // no stack holds as many destructors in each other

    Released deferred;
    int context = 0;
    { const Packet unnamed(16, deferred.function(), &context, 4); }
    EXPECT_EQ(deferred.calls, 0) << "there was no buffer to let go of";
    {
        Packet named(16, deferred.function(), &context, 4);
        EXPECT_EQ(Packet(named, 1, 2, 0).getBuffer(), nullptr);
        EXPECT_EQ(named.putBuffer(bytes, 7), 7);
        EXPECT_EQ(named.putBuffer(bytes + 1, 9), 9) << "names the buffer anew";
        EXPECT_EQ(named.size(), 9);
        EXPECT_EQ(named.getBuffer(), reinterpret_cast<uint8_t*>(bytes) + 1);
    }
    EXPECT_EQ(deferred.calls, 1);
    EXPECT_EQ(deferred.first, &context);
    EXPECT_EQ(deferred.size, 16u) << "the capacity, not what is in use";
}

TEST(Packet, AnInvalidOneAnswersEverything) {
    Packet packet(100, 0);  // nothing was decided yet
    char byte = 0;
    EXPECT_EQ(packet.putBuffer(&byte, 1) + packet.size() + packet.capacity(), 0);
    EXPECT_EQ(packet.getBuffer(), nullptr);
    EXPECT_EQ(packet.getExtraData(), nullptr);
    EXPECT_FALSE(packet.resize(0));
    packet = Packet(packet);
    packet.reset();
    EXPECT_FALSE(packet.valid());
}

}  // namespace
