// The zoned buffer and the bipartite ring.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <string>

#include "Vantel/Memory/Buffer.h"
#include "Vantel/Memory/CBipBuffer.h"

namespace {

using namespace Vantel::Memory;

signed char* chars(std::string& text) {
    return reinterpret_cast<signed char*>(text.data());
}

TEST(ZonedBuffer, TheBodyGrowsAndTheOtherZonesKeepTheirBytes) {
    const int page = getpagesize();
    Buffer buffer;
    EXPECT_EQ(buffer.getData(Buffer::kBody), nullptr);
    ASSERT_TRUE(buffer.initial(page, 4, 3));
    EXPECT_EQ(buffer.capacity(), 2 * page) << "a whole page gets one more";

    std::string text = "0123456789";
    EXPECT_EQ(buffer.putData(chars(text), 3, Buffer::kHead), 3);
    EXPECT_EQ(buffer.putData(chars(text), 2, Buffer::kHead), -1);
    EXPECT_EQ(buffer.putData(chars(text), 3, Buffer::kTail), 3);
    EXPECT_EQ(buffer.putData(chars(text), 1, Buffer::kTail), -1);

    std::string body(static_cast<size_t>(2 * page - 7), 'b');
    EXPECT_EQ(buffer.putData(chars(body), 2 * page - 7, Buffer::kBody), 2 * page - 7);
    EXPECT_EQ(buffer.capacity(), 2 * page) << "it fits to the last byte";
    EXPECT_EQ(buffer.putData(buffer.getData(Buffer::kHead), 1, Buffer::kBody), 1) << "its own byte";
    EXPECT_EQ(buffer.capacity(), 4 * page) << "half as much again, a whole page gets one more";
    body += text.substr(0, 1);
    EXPECT_EQ(buffer.size(Buffer::kBody), 2 * page - 6);
    EXPECT_EQ(std::memcmp(buffer.getData(Buffer::kBody), body.data(), body.size()), 0);
    EXPECT_EQ(std::memcmp(buffer.getData(Buffer::kHead), "012", 3), 0);
    EXPECT_EQ(std::memcmp(buffer.getData(Buffer::kTail), "012", 3), 0);
    EXPECT_EQ(buffer.getData(Buffer::kTail), buffer.getData(Buffer::kHead) + 4 * page - 3);

    buffer.resize(Buffer::kBody);
    EXPECT_EQ(buffer.size(Buffer::kBody), 0);
    EXPECT_EQ(buffer.size(Buffer::kHead), 3);
    const auto unknown = static_cast<Buffer::Zone>(3);
    EXPECT_EQ(buffer.size(unknown), -1);
    EXPECT_EQ(buffer.putData(chars(text), 1, unknown), -1);
    EXPECT_EQ(buffer.putData(nullptr, 1, Buffer::kBody), -1);
    EXPECT_EQ(buffer.putData(chars(text), 0, Buffer::kBody), -1);
    EXPECT_EQ(buffer.putData(chars(text), INT_MAX, Buffer::kBody), -1) << "beyond any area";
}

TEST(ZonedBuffer, RefusesAreasWithoutABody) {
    const struct {
        int total, head, tail;
        bool done;
    } cases[] = {{0, 0, 0, false},
                 {100, -1, 0, false},
                 {100, 0, -1, false},
                 {100, 60, 40, false},
                 {100, INT_MAX, INT_MAX, false},
                 {100, 60, 39, true}};
    for (const auto& c : cases) {
        Buffer buffer;
        EXPECT_EQ(buffer.initial(c.total, c.head, c.tail), c.done) << c.total << " " << c.head;
        EXPECT_EQ(buffer.valid(), c.done);
    }
    Buffer failed;
    EXPECT_FALSE(failed.initial(INT_MAX, 0, 0)) << "the rounded size is none";
    EXPECT_EQ(failed.size(Buffer::kBody) + failed.capacity(), 0);
    EXPECT_FALSE(failed.initial(100, 0, 0)) << "the object has come to its end";
}

uint8_t* bytes(const char* text) {
    return reinterpret_cast<uint8_t*>(const_cast<char*>(text));
}

TEST(BipBuffer, TheWriterMovesToTheLargerGap) {
    CBipBuffer ring;
    EXPECT_FALSE(ring.reset());
    EXPECT_EQ(ring.request(0), nullptr);
    EXPECT_FALSE(ring.initial(-1));
    ASSERT_TRUE(ring.initial(8));
    EXPECT_EQ(ring.offer(bytes("abcdef"), 6), 6);
    EXPECT_EQ(ring.unused(), 2);
    uint8_t* start = ring.poll(4);
    EXPECT_EQ(std::memcmp(start, "abcd", 4), 0);
    EXPECT_EQ(ring.unused(), 4) << "the front gap is the larger one";
    EXPECT_EQ(ring.offer(bytes("ghijk"), 5), 0) << "six bytes are free, but not in one piece";
    EXPECT_EQ(ring.offer(bytes("ghi"), 3), 3);
    EXPECT_EQ(ring.used(), 5);
    int size = 0;
    EXPECT_EQ(std::memcmp(ring.peek(size), "ef", 2), 0);
    EXPECT_EQ(size, 2);
    EXPECT_EQ(ring.poll(5), nullptr) << "beyond the area";
    ring.poll(2);
    EXPECT_EQ(ring.peek(size), start) << "region B has become region A";
    EXPECT_EQ(size, 3);
    ring.poll(3);
    EXPECT_TRUE(ring.empty());
    EXPECT_EQ(ring.unused(), 8) << "rewound";
    ring.offer(bytes("abc"), 3);
    ring.poll(2);
    EXPECT_EQ(ring.offer(bytes("defg"), 4), 4);
    EXPECT_EQ(ring.unused(), 2) << "after a write the front gap may be the larger one, too";
    ring.reset();
    for (const int bad : {-1, INT_MIN}) {
        EXPECT_EQ(ring.offer(bytes("x"), bad) + ring.commit(bad), 0);
        EXPECT_EQ(ring.request(bad), nullptr);
        ring.offer(bytes("x"), 1);
        EXPECT_EQ(ring.poll(bad), nullptr);
        EXPECT_TRUE(ring.reset());
    }
    EXPECT_EQ(ring.poll(0), nullptr) << "empty";
}

TEST(BipBuffer, KeepsTheOrderOfBytes) {
    const auto byteOf = [](int number) { return static_cast<uint8_t>(number + number / 256); };
    std::mt19937 random(7);
    for (const int capacity : {1, 2, 7, 64, 1000}) {
        SCOPED_TRACE(capacity);
        CBipBuffer ring;
        ASSERT_TRUE(ring.initial(capacity));
        int written = 0;
        int read = 0;
        for (int turn = 0; turn < 20000; ++turn) {
            const int size = static_cast<int>(random() % static_cast<unsigned>(capacity + 1));
            if (random() % 2 == 0) {
                uint8_t* place = ring.request(size);
                ASSERT_EQ(place != nullptr, size <= ring.unused());
                const int part = place == nullptr ? 0 : size / static_cast<int>(1 + random() % 2);
                for (int i = 0; i < part; ++i) {
                    place[i] = byteOf(written++);
                }
                ASSERT_EQ(ring.commit(part), part);
            } else {
                int available = 0;
                const uint8_t* seen = ring.peek(available);
                ASSERT_EQ(seen == nullptr, read == written);
                const int part = std::min(size, available);
                ASSERT_EQ(ring.poll(part), seen);
                for (int i = 0; i < part; ++i) {
                    ASSERT_EQ(seen[i], byteOf(read++));
                }
            }
            ASSERT_EQ(ring.used(), written - read);
            ASSERT_LE(ring.used() + ring.unused(), capacity);
        }
        EXPECT_GT(written, 1000) << "the ring got stuck";
    }
}

}  // namespace
