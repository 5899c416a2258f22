#include "Vantel/Orbel/NetBuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
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

/// Against a model: the bytes as a string, and where an emptied buffer starts.
TEST(NetBufferTest, RandomOperationsAgainstAModel) {
    std::mt19937 random(7);
    uint8_t next = 1;
    for (int round = 0; round < 200; ++round) {
        size_t headroom = random() % 20;
        NetBuffer buffer(random() % 50, headroom);
        std::string model(buffer.size(), '\0');
        for (int step = 0; step < 200; ++step) {
            const size_t count = random() % (step % 10 == 0 ? 6000 : 40);
            std::string bytes(count, '\0');
            for (char& byte : bytes) {
                byte = static_cast<char>(next++);
            }
            switch (random() % 8) {
                case 0:
                    buffer.append(bytes.data(), count);
                    model += bytes;
                    break;
                case 1:
                    buffer.ensureWritable(count);
                    ASSERT_GE(buffer.writableSize(), count);
                    std::copy(bytes.begin(), bytes.end(), buffer.writableData());
                    buffer.hasWritten(count);
                    model += bytes;
                    break;
                case 2:
                    if (count <= buffer.headroom()) {
                        model.insert(0, bytes);
                        ASSERT_TRUE(buffer.prepend(bytes.data(), count));
                    } else {
                        ASSERT_FALSE(buffer.prepend(bytes.data(), count));
                    }
                    break;
                case 3:
                case 4:
                    buffer.consume(count * 2);
                    model.erase(0, count * 2);
                    ASSERT_TRUE(!model.empty() || buffer.headroom() == headroom);
                    break;
                case 5:
                    buffer.compact();
                    ASSERT_LE(buffer.headroom(), headroom);
                    break;
                case 6: {
                    const size_t wanted = count % 30, writable = buffer.writableSize();
                    headroom = buffer.headroom() < wanted ? wanted : std::max(headroom, wanted);
                    buffer.reserveHeadroom(wanted);
                    ASSERT_GE(buffer.headroom(), wanted);
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
            ASSERT_TRUE(std::equal(model.begin(), model.end(), buffer.data(),
                                   [](char a, uint8_t b) { return a == static_cast<char>(b); }));
            ASSERT_LE(buffer.headroom() + buffer.size(), buffer.capacity());
        }
    }
}
