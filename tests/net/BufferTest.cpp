#include "Vantel/Orbel/Buffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <thread>

using Vantel::Orbel::Buffer;

TEST(BufferTest, AppendMovesTheCursorOfEveryCopy) {
    Buffer buffer;
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_EQ(buffer.append("abc", 3, false), 0) << "no room, and none made";
    EXPECT_EQ(buffer.append("abc", 3, true), 3);
    Buffer copy(buffer);
    EXPECT_EQ(copy.append("defgh", 5, true), 5);
    EXPECT_EQ(buffer.tell(), 8);
    EXPECT_EQ(buffer.capability(), 8) << "what was asked for, not what was allocated";
    EXPECT_EQ(std::memcmp(buffer.data(), "abcdefgh", 8), 0);
    EXPECT_EQ(buffer.seek(-2, 2), 6);
    EXPECT_EQ(copy.append("XYZ", 3, false), 2) << "only what fits";
    EXPECT_EQ(std::memcmp(buffer.data(6), "XY", 2), 0);
    EXPECT_EQ(buffer.remain(), 0);
    copy.reset();
    EXPECT_EQ(buffer.offset(), buffer.data(0));
}

TEST(BufferTest, ACursorPastTheEndCopiesNothing) {
    Buffer buffer;
    ASSERT_EQ(buffer.resize(10), 10);
    ASSERT_EQ(buffer.seek(8, 0), 8);
    EXPECT_EQ(buffer.resize(4), 4);
    EXPECT_EQ(buffer.tell(), 8) << "it stays";
    EXPECT_EQ(buffer.remain(), -4);
    EXPECT_EQ(buffer.append("abc", 3, false), 0);
    EXPECT_EQ(buffer.append("abc", 3, true), 3) << "grown from the capacity of 10";
    EXPECT_EQ(buffer.size(), 13);
    EXPECT_EQ(buffer.tell(), 11);
}

TEST(BufferTest, RefusesBadArguments) {
    Buffer buffer;
    EXPECT_EQ(buffer.seek(5, 7), 0) << "without storage any kind of seek goes";
    EXPECT_EQ(buffer.seek(1, 0), -1);
    EXPECT_EQ(buffer.resize(-1), -1);
    EXPECT_EQ(buffer.append("a", -1, true), -1);
    EXPECT_EQ(buffer.append(nullptr, 1, true), -1);
    ASSERT_EQ(buffer.resize(3), 3);
    EXPECT_EQ(buffer.append("abc", INT_MAX, true), 3) << "it cannot grow by that: what fits";
    buffer.reset();
    const struct {
        int offset, whence, result;
    } seeks[] = {{3, 0, 3},   {0, 1, 3},  {-3, 1, 0},  {0, 2, 3},  {1, 2, -1},
                 {-4, 2, -1}, {4, 0, -1}, {-1, 0, -1}, {0, 7, -1}, {0, -1, -1}};
    for (const auto& s : seeks) {
        EXPECT_EQ(buffer.seek(s.offset, s.whence), s.result) << s.offset << " from " << s.whence;
    }
    EXPECT_EQ(buffer.data(-1), nullptr);
    EXPECT_EQ(buffer.data(4), nullptr);
    EXPECT_NE(buffer.data(3), nullptr);
}

TEST(BufferTest, CloneIsIndependentAndCopiesShare) {
    Buffer buffer;
    buffer.append("abcdef", 6, true);
    buffer.resize(2);
    std::unique_ptr<Buffer> clone(buffer.clone());
    EXPECT_EQ(clone->size(), 6) << "all that the capacity holds";
    EXPECT_EQ(clone->tell(), 6);
    buffer.data()[0] = 'X';
    EXPECT_EQ(clone->data()[0], 'a');
    EXPECT_EQ(std::unique_ptr<Buffer>(Buffer().clone())->size(), 0);

    Buffer other;
    other.append("z", 1, true);
    other = buffer;
    other = *&other;
    EXPECT_EQ(other.data(), buffer.data());
    std::thread copier([copy = buffer]() mutable {
        for (int i = 0; i < 1000; ++i) {
            Buffer another(copy);
            copy = another;
        }
    });
    for (int i = 0; i < 1000; ++i) {
        Buffer another(buffer);
    }
    buffer = Buffer();
    other = Buffer();
    copier.join();
}
