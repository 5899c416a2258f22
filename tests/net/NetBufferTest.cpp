#include "Vantel/Orbel/NetBuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

using Vantel::Orbel::NetBuffer;

TEST(NetBufferTest, ANewBufferIsABlockToFill) {
    NetBuffer buffer(8, 4);
    ASSERT_EQ(buffer.size(), 8u);
    EXPECT_EQ(buffer.data()[7], 0);
    buffer.clear();
    EXPECT_TRUE(buffer.empty());
    EXPECT_EQ(buffer.data(), nullptr) << "although there is storage";
    EXPECT_EQ(buffer.writableSize(), 8u);
    EXPECT_TRUE(buffer.prepend("abcd", 4));
    EXPECT_FALSE(buffer.prepend("e", 1));
    EXPECT_FALSE(buffer.prepend(nullptr, 1));
    EXPECT_TRUE(buffer.prepend(nullptr, 0));
    EXPECT_EQ(std::memcmp(buffer.data(), "abcd", 4), 0);
    EXPECT_EQ(buffer.headroomData(1), nullptr);
}

TEST(NetBufferTest, Growth) {
    NetBuffer buffer(0);
    EXPECT_EQ(buffer.capacity(), 0u);
    EXPECT_EQ(buffer.writableData(), nullptr);
    buffer.append("x", 1);
    EXPECT_EQ(buffer.capacity(), 4096u);
    buffer.ensureWritable(4096);
    EXPECT_EQ(buffer.capacity(), 8192u) << "doubles";
    buffer.consume(1);
    buffer.append(std::string(8192, 'y').data(), 8192);
    EXPECT_EQ(buffer.capacity(), 8192u) << "uses the room in front before it grows";
    buffer.consume(100);
    buffer.ensureWritable(100);
    EXPECT_EQ(buffer.capacity(), 8192u);
    EXPECT_EQ(buffer.headroom(), 0u);
    buffer.reserve(10000);
    EXPECT_EQ(buffer.capacity(), 10000u);
    buffer.hasWritten(10000);
    EXPECT_EQ(buffer.capacity(), 20000u) << "more announced than there was room";
    EXPECT_EQ(buffer.size(), 18092u);
    buffer.reserve(1);
    EXPECT_EQ(buffer.capacity(), 20000u);
}

TEST(NetBufferTest, SizesThatOverflowAreRefused) {
    constexpr size_t kHuge = std::numeric_limits<size_t>::max();
    EXPECT_THROW(NetBuffer(kHuge, 2), std::length_error);
    NetBuffer buffer(8, 4);
    EXPECT_THROW(buffer.ensureWritable(kHuge), std::length_error);
    EXPECT_THROW(buffer.ensureWritable(kHuge - 100), std::length_error);
    EXPECT_THROW(buffer.hasWritten(kHuge), std::length_error);
    EXPECT_THROW(buffer.reserveHeadroom(kHuge), std::length_error);
    EXPECT_THROW(buffer.resize(kHuge), std::length_error);
    EXPECT_EQ(buffer.size(), 8u) << "and change nothing";
}

/// Against a model: the bytes as a deque, and the room in front and behind as numbers.
TEST(NetBufferTest, RandomOperationsAgainstAModel) {
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        const size_t startHeadroom = random() % 20;
        NetBuffer buffer(random() % 50, startHeadroom);
        std::deque<uint8_t> model(buffer.size(), 0);
        size_t headroom = startHeadroom;  // where an emptied buffer starts
        uint8_t next = 1;
        for (int step = 0; step < 200; ++step) {
            const size_t count = random() % (step % 10 == 0 ? 6000 : 40);
            std::string bytes(count, '\0');
            for (char& byte : bytes) {
                byte = static_cast<char>(next++);
            }
            switch (random() % 8) {
                case 0:
                    buffer.append(bytes.data(), count);
                    model.insert(model.end(), bytes.begin(), bytes.end());
                    break;
                case 1:
                    buffer.ensureWritable(count);
                    ASSERT_GE(buffer.writableSize(), count);
                    if (count > 0) {
                        std::memcpy(buffer.writableData(), bytes.data(), count);
                    }
                    buffer.hasWritten(count);
                    model.insert(model.end(), bytes.begin(), bytes.end());
                    break;
                case 2: {
                    const bool fits = count <= buffer.headroom();
                    ASSERT_EQ(buffer.prepend(bytes.data(), count), fits);
                    if (fits) {
                        model.insert(model.begin(), bytes.begin(), bytes.end());
                    }
                    break;
                }
                case 3:
                case 4:
                    buffer.consume(count * 2);
                    model.erase(model.begin(), model.begin() + static_cast<ptrdiff_t>(std::min(
                                                                   count * 2, model.size())));
                    if (model.empty()) {
                        ASSERT_EQ(buffer.headroom(), headroom);
                    }
                    break;
                case 5:
                    buffer.compact();
                    ASSERT_LE(buffer.headroom(), headroom);
                    break;
                case 6: {
                    const size_t writable = buffer.writableSize(), before = buffer.headroom();
                    buffer.reserveHeadroom(count % 30);
                    headroom = before < count % 30 ? count % 30 : std::max(headroom, count % 30);
                    ASSERT_GE(buffer.headroom(), count % 30);
                    ASSERT_EQ(buffer.writableSize(), writable);
                    break;
                }
                default:
                    if (count > 30) {
                        buffer.clear();
                        model.clear();
                    }
            }
            ASSERT_EQ(buffer.size(), model.size());
            ASSERT_TRUE(model.empty() || std::equal(model.begin(), model.end(), buffer.data()));
            ASSERT_LE(buffer.headroom() + buffer.size(), buffer.capacity());
        }
    }
}
