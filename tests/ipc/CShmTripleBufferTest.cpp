#include "Vantel/Memory/CShmTripleBuffer.h"

#include <gtest/gtest.h>

#include <memory>

#include "ipc/TripleLayout.h"
#include "tests/ipc/RingSupport.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/OpenDescriptors.h"

using OrbelTest::HelperProcess;
using OrbelTest::RawSegment;
using Vantel::Memory::CShmTripleBuffer;
using Vantel::Memory::ShmTripleHeader;
using Vantel::Memory::ShmTripleSlot;
using Vantel::Memory::TripleState;

namespace {

// Few: on a busy machine a reader may get one new sample only in each slice of its processor's
// time.
constexpr const char* kSamples = "2000";

class TripleBufferTest : public testing::Test {
protected:
    bool create(CShmTripleBuffer& buffer, unsigned dataSize) {
        return buffer.create(mName.c_str(), dataSize);
    }
    static int put(CShmTripleBuffer& buffer, uint64_t value) { return buffer.put(&value, 8); }

    /// The four results of one get() into eight bytes that held 7.
    struct Got {
        int result;
        uint64_t value = 7;
        unsigned size = 77;
        unsigned long sequence = 777;
        bool operator==(const Got& other) const {
            return result == other.result && value == other.value && size == other.size &&
                   sequence == other.sequence;
        }
    };
    static Got get(CShmTripleBuffer& buffer) {
        Got got{};
        got.result = buffer.get(&got.value, 8, &got.size, &got.sequence);
        return got;
    }
    RawSegment raw() { return RawSegment("/shmTriple_" + mName); }

    OrbelTest::ShmCleanup mCleanup;
    std::string mName = mCleanup.name("triple");
};

TEST_F(TripleBufferTest, HandsOutTheNewestSampleOnceOrAgain) {
    CShmTripleBuffer writer;
    ASSERT_TRUE(create(writer, 3));
    CShmTripleBuffer once;
    CShmTripleBuffer again;
    ASSERT_TRUE(once.open(mName.c_str(), true));
    ASSERT_TRUE(again.open(mName.c_str(), false));
    EXPECT_TRUE(get(once) == (Got{0, 7, 0, 0}));
    EXPECT_TRUE(get(again) == (Got{8, 7, 77, 777})) << "its own size, nothing touched";
    for (uint64_t i = 1; i < 20; ++i) {
        ASSERT_EQ(put(writer, 100 + i), 0) << "eight bytes fit where three were asked for";
        const auto state = TripleState::unpack(raw().at<ShmTripleHeader>(0).state.load());
        EXPECT_EQ(state.front, i % 3);
        EXPECT_EQ(state.write, (i + 1) % 3);
        if (i % 3 != 0) {
            continue;  // looked at every third one only
        }
        EXPECT_TRUE(get(once) == (Got{8, 100 + i, 8, i}));
        EXPECT_TRUE(get(once) == (Got{0, 7, 0, i}));
        EXPECT_TRUE(get(again) == (Got{8, 100 + i, 8, i}));
        EXPECT_TRUE(get(again) == (Got{8, 100 + i, 8, i}));
    }
    char bytes[9] = {};
    unsigned size = 0;
    EXPECT_EQ(writer.put(bytes, 9), -1);
    EXPECT_EQ(writer.put(bytes, 0), -1);
    EXPECT_EQ(writer.put(nullptr, 1), -1);
    EXPECT_EQ(once.get(bytes, 7, &size, nullptr), -3);
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(once.get(nullptr, 8, nullptr, nullptr), -1);
    EXPECT_EQ(once.get(bytes, 8, nullptr, nullptr), 8) << "still there, and outputs may be null";
    EXPECT_EQ(writer.latestSeq(), 19u);
}

TEST_F(TripleBufferTest, FollowsABufferThatIsJoinedMadeAnewOrDestroyed) {
    const long descriptors = OrbelTest::openDescriptors();
    {
        CShmTripleBuffer none;
        EXPECT_EQ(put(none, 1), -4);
        EXPECT_TRUE(get(none) == (Got{-4}));
        EXPECT_FALSE(none.destroy());
        EXPECT_FALSE(none.create(nullptr, 8));
        EXPECT_FALSE(none.create(mName.c_str(), 0));
        for (const unsigned tooLarge : {0xFFFFFFFFu, 0x55555580u}) {
            EXPECT_FALSE(none.create(mName.c_str(), tooLarge));
        }
        EXPECT_FALSE(none.open(nullptr, true));
        EXPECT_FALSE(none.open(mName.c_str(), true)) << "ten attempts";

        auto first = std::make_unique<CShmTripleBuffer>();
        ASSERT_TRUE(create(*first, 8));
        ASSERT_EQ(put(*first, 11), 0);
        CShmTripleBuffer reader;
        ASSERT_TRUE(reader.open(mName.c_str(), true));
        first.reset();
        CShmTripleBuffer second;
        ASSERT_TRUE(create(second, 5));
        EXPECT_TRUE(get(reader) == (Got{8, 11, 8, 1})) << "the last sample stays";

        CShmTripleBuffer larger;
        ASSERT_TRUE(create(larger, 4096));
        EXPECT_EQ(put(second, 12), 0) << "the old writer moves over too";
        EXPECT_TRUE(get(reader) == (Got{8, 12, 8, 1})) << "numbers start again";
        EXPECT_TRUE(reader.close());
        EXPECT_EQ(reader.latestSeq(), 0u);
        EXPECT_TRUE(get(reader) == (Got{8, 12, 8, 1})) << "attaches again, and has seen nothing";

        EXPECT_TRUE(larger.destroy());
        EXPECT_TRUE(get(reader) == (Got{-4}));
        EXPECT_EQ(put(second, 13), -4);
        EXPECT_TRUE(second.destroy()) << "gone already";
        ASSERT_TRUE(create(larger, 8));
        ASSERT_EQ(put(larger, 14), 0);
        EXPECT_TRUE(get(reader) == (Got{8, 14, 8, 1}));
    }
    EXPECT_EQ(OrbelTest::openDescriptors(), descriptors);
}

TEST_F(TripleBufferTest, ForgedSegmentsNeverLeadOutside) {
    const struct {
        const char* why;
        void (*forge)(ShmTripleHeader&);
        bool opens;
        int attached;  // what a reader that is attached already gets
    } cases[] = {
        {"not valid", [](ShmTripleHeader& h) { h.valid.store(0); }, false, -4},
        {"version", [](ShmTripleHeader& h) { h.version.store(1); }, false, -4},
        {"no slot size", [](ShmTripleHeader& h) { h.slotSize.store(0); }, false, 8},
        {"odd slot size", [](ShmTripleHeader& h) { h.slotSize.store(12); }, false, 8},
        {"large slots", [](ShmTripleHeader& h) { h.slotSize.store(0x55555560); }, false, 8},
        {"front 3", [](ShmTripleHeader& h) { h.state.store(h.state.load() | 3); }, false, -4},
        {"write 3", [](ShmTripleHeader& h) { h.state.store(h.state.load() | 12); }, false, 8},
        {"same slot", [](ShmTripleHeader& h) { h.state.store(1 << 4 | 5); }, false, 8},
        {"sample too large",
         [](ShmTripleHeader& h) {
             reinterpret_cast<ShmTripleSlot*>(reinterpret_cast<std::byte*>(&h) + 24 + 32)
                 ->size.store(0xFFFFFFFF);
         },
         true, -4},
        {"sample of the future",
         [](ShmTripleHeader& h) { h.state.store(h.state.load() + (1 << 4)); }, true, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        CShmTripleBuffer writer;
        ASSERT_TRUE(create(writer, 8));
        ASSERT_EQ(put(writer, 1), 0);
        CShmTripleBuffer attached;
        ASSERT_TRUE(attached.open(mName.c_str(), true));
        RawSegment segment = raw();
        c.forge(segment.at<ShmTripleHeader>(0));
        CShmTripleBuffer opened;
        EXPECT_EQ(opened.open(mName.c_str(), true), c.opens);
        EXPECT_EQ(get(attached).result, c.attached);
        put(writer, 2);
        EXPECT_TRUE(create(writer, 8)) << "made anew where it is not in order";
        EXPECT_EQ(put(writer, 3), 0);
        writer.destroy();
    }
    for (const size_t length : {0, 8, 24, 119}) {
        ASSERT_TRUE(RawSegment::make("/shmTriple_" + mName, length));
        CShmTripleBuffer buffer;
        EXPECT_TRUE(create(buffer, 8)) << length;
        EXPECT_EQ(put(buffer, 1), 0);
        EXPECT_TRUE(buffer.destroy());
    }
}

TEST_F(TripleBufferTest, NeverTornNorOlderUnderAWriterAtFullSpeed) {
    for (const char* words : {"16", "1024"}) {
        SCOPED_TRACE(words);
        const std::string name = mCleanup.name("triple");
        HelperProcess writer("TripleHelper", {"write", name, words});
        ASSERT_TRUE(writer.waitForLine("ready"));
        HelperProcess readers[] = {HelperProcess("TripleHelper", {"read", name, kSamples}),
                                   HelperProcess("TripleHelper", {"read", name, kSamples})};
        for (HelperProcess& reader : readers) {
            std::string line;
            EXPECT_TRUE(reader.readLine(line, 200000));
            EXPECT_EQ(line, "whole");
        }
        writer.killAndReap();  // anywhere, also in the middle of a sample
        CShmTripleBuffer next;
        ASSERT_TRUE(next.create(name.c_str(), static_cast<unsigned>(atoi(words) * 8)));
        const unsigned long sequence = next.latestSeq();
        CShmTripleBuffer reader;
        ASSERT_TRUE(reader.open(name.c_str(), true));
        EXPECT_EQ(put(next, 5), 0);
        EXPECT_TRUE(get(reader) == (Got{8, 5, 8, sequence + 1}));
    }
}

}  // namespace
