#include "Vantel/Utils/Utils.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <bit>
#include <cmath>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace Vantel::Utils;

namespace {

using Fields = std::vector<std::string>;

const uint8_t* bytes(const std::string& text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

std::string encoded(const std::string& text) {
    return base64Encode(bytes(text), static_cast<unsigned>(text.size()));
}

Json::Value json(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(stringToJson(text, value)) << text;
    return value;
}

TEST(Base64, ThereAndBackWithRoomToSpare) {
    EXPECT_EQ(encoded("f"), "Zg==");
    EXPECT_EQ(encoded("fo"), "Zm8=");
    EXPECT_EQ(encoded("foobar"), "Zm9vYmFy");
    std::string all;
    for (int size = 0; size < 300; ++size) {
        EXPECT_EQ(base64Decode(encoded(all)), all);
        EXPECT_GT(base64EncodeLength(size), static_cast<int>(encoded(all).size()));
        EXPECT_GT(base64DecodeLength(encoded(all)), size);
        all += static_cast<char>(size * 7);
    }
    EXPECT_EQ(base64EncodeLength(4), 9);
    EXPECT_EQ(base64EncodeLength(std::numeric_limits<int>::max()), std::numeric_limits<int>::max());
}

TEST(Base64, DecodingSkipsLineEndsStopsAtPaddingAndRefusesTheRest) {
    const struct {
        const char* text;
        const char* data;
        int length;  // of what leads, and a terminator
    } cases[] = {
        {"", "", 1},     {"QUJD\n", "ABC", 4}, {"QU\r\nJD", "ABC", 4},
        {"QU*D", "", 4}, {"QUJD ", "", 4},     {"QUI=*", "AB", 4},
        {"Q", "", 4},    {"QUJDR", "ABC", 7},  {"\xff", "", 1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(base64Decode(c.text), c.data) << c.text;
        EXPECT_EQ(base64DecodeLength(c.text), c.length) << c.text;
    }
}

TEST(Checksum, CheckValuesAndPieces) {
    const std::string text = "123456789";
    EXPECT_EQ(crc16(crc16(0, bytes(text), 4), bytes(text) + 4, 5), 0xBB3D);
    EXPECT_EQ(crc16(0x1234, nullptr, 0), 0x1234);
    EXPECT_EQ(crc32(bytes(text), 9), 0xCBF43926u);
    EXPECT_EQ(crc32(nullptr, 0), 0u);
    EXPECT_EQ(crc32(0x12345678u, bytes(text), 0), 0x12345678u);

    // Every length around the eight bytes at a time, at every alignment, cut anywhere.
    std::string long_;
    for (int i = 0; i < 80; ++i) {
        long_ += static_cast<char>(i * 37);
    }
    for (size_t begin = 0; begin < 8; ++begin) {
        uint32_t oneByOne = 0;
        for (size_t size = 1; begin + size <= long_.size(); ++size) {
            oneByOne = crc32(oneByOne, bytes(long_) + begin + size - 1, 1);
            ASSERT_EQ(crc32(bytes(long_) + begin, size), oneByOne) << begin << " " << size;
        }
    }
}

TEST(Bits, LogarithmAndSwaps) {
    const std::pair<uint32_t, uint32_t> logs[] = {{0, 0}, {1, 0}, {7, 2}, {8, 3}, {0x80000000, 31}};
    for (const auto& [value, log] : logs) {
        EXPECT_EQ(log2Int(value), log) << value;
    }
    EXPECT_EQ(swapUint64(0x0102030405060708u), 0x0807060504030201u);
    EXPECT_EQ(swapUint32(0x01020304u), uint32_t{swapUint16(0x0304)} << 16 | swapUint16(0x0102));
}

TEST(Strings, ReplaceAll) {
    const struct {
        std::string text;
        const char* from;
        const char* to;
        const char* result;  // null: refused
    } cases[] = {
        {"", "a", "b", nullptr},  {"abab", "ab", "abab", "abababab"},
        {"aaa", "aa", "b", "ba"}, {"abc", "x", "y", "abc"},
        {"abc", "", "y", "abc"},  {"a'b''", "'", "", "ab"},
    };
    for (auto c : cases) {
        EXPECT_EQ(replaceAllString(c.text, c.from, c.to), c.result != nullptr);
        EXPECT_EQ(c.text, c.result == nullptr ? "" : c.result);
    }
    std::string own = "aXa";
    EXPECT_TRUE(replaceAllString(own, "X", own));
    EXPECT_EQ(own, "aaXaa");
    EXPECT_EQ(quoteStr("it's ''"), "it''s ''''");
}

TEST(Strings, Trims) {
    const struct {
        const char* text;
        const char* chars;
        const char* left;
        const char* right;
        const char* both;
    } cases[] = {
        {"", " ", "", "", ""},
        {"  ", " ", "", "", ""},
        {" \ta b\t ", " \t", "a b\t ", " \ta b", "a b"},
        {"xax", "", "xax", "xax", "xax"},
    };
    for (const auto& c : cases) {
        std::string left = c.text, right = c.text, both = c.text;
        EXPECT_EQ(leftTrim(left, c.chars), c.left);
        EXPECT_EQ(rightTrim(right, c.chars), c.right);
        EXPECT_EQ(&trim(both, c.chars), &both);
        EXPECT_EQ(both, c.both);
    }
}

TEST(Strings, Hexadecimal) {
    EXPECT_EQ(binToHex("\x01\xaf\xff", 3), "01AFFF");
    EXPECT_EQ(binToHex(nullptr, 3), "");
    EXPECT_EQ(hexToBin("01aFfF", 6), "\x01\xaf\xff");
    EXPECT_EQ(hexToBin("01a", 3), "\x01\xa0");
    for (const char* refused : {"0g", "g0", "0:", "@0", "0`", "0/"}) {
        EXPECT_EQ(hexToBin(refused, 2), "") << refused;
    }
    EXPECT_EQ(hexToBin(nullptr, 2), "");
    EXPECT_EQ(charToHex(16), 'G') << "no upper bound";
    std::string alphaNumeric;
    for (int c = 0; c < 256; ++c) {
        alphaNumeric += std::string(isAlphaNumber(static_cast<unsigned char>(c)), char(c));
    }
    EXPECT_EQ(alphaNumeric, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
}

TEST(Strings, Splits) {
    EXPECT_EQ(splitString(",a,,b,", ','), (Fields{"", "a", "", "b"}));
    EXPECT_EQ(splitString("", ','), Fields{});

    EXPECT_EQ(splitString(",a,,b,", ","), (Fields{"a", "b"}));
    EXPECT_EQ(splitString("a--b", "--"), (Fields{"a", "b"}));
    EXPECT_EQ(splitString("--x", "--"), (Fields{"-x"})) << "the scan moves on by one";
    EXPECT_EQ(splitString("", "--"), Fields{});
    EXPECT_EQ(splitString("abc", ""), Fields{});
}

TEST(Strings, TimesOfDay) {
    for (const char* good : {"7:05:00", "07:05:00", "19:59:59", "23:00:00", "0:00:00"}) {
        EXPECT_TRUE(checkTimeFormat(good)) << good;
    }
    for (const char* bad :
         {"24:00:00", "7:5:00", "7:05", "7:05:60", "7:60:00", "", " 7:05:00", "a:05:00", "2a:05:00",
          "0705:00", "07:0500", "30:05:00", "007:05:00", "7:05:00\n"}) {
        EXPECT_FALSE(checkTimeFormat(bad)) << bad;
    }
}

TEST(Numbers, RoundTakesHalfAUnitOff) {
    const struct {
        float value;
        int digits;
        float result;
    } cases[] = {
        {1.234f, 2, 1.22f}, {1.236f, 2, 1.23f}, {-1.234f, 2, -1.22f},     {2.7f, 0, 2.0f},
        {0.3f, 0, 0.0f},    {1.5f, -1, 0.0f},   {1e30f, 2, 21474836.48f},  // 32 bits overflow
    };
    for (const auto& c : cases) {
        EXPECT_FLOAT_EQ(round(c.value, c.digits), c.result) << c.value;
    }
    EXPECT_EQ(toPrecisionString(1.25f, 3), "1.250");
    EXPECT_EQ(toPrecisionString(3.4e38f, 50).size(), 63u) << "stays in its buffer";
}

TEST(Numbers, FloatVectors) {
    EXPECT_EQ(floatVecToJsonString({1.0f, -2.5f}), "[1.0,-2.5]");
    EXPECT_EQ(floatVecToJsonString({}), "[]");

    std::string text = "old";
    EXPECT_TRUE(float2Base64String({}, text));
    EXPECT_EQ(text, "");
    EXPECT_TRUE(float2Base64String({1.0f, 2.0f}, text));
    EXPECT_EQ(text, encoded("1065353216 1073741824"));

    const struct {
        const char* numbers;
        bool good;
        std::vector<uint32_t> patterns;
    } cases[] = {
        {"0 2147483648 1 2139095040 2143289351", true, {0, 0x80000000, 1, 0x7f800000, 0x7fc00007}},
        {"12 -3", false, {12}},
        {"12 3x 4", false, {12}},
        {"12  4", false, {12}},
        {"", false, {}},
        {"4294967297", true, {1}},  // the low 32 bits
        {"99999999999999999999999", true, {0xffffffffu}},
    };
    for (const auto& c : cases) {
        std::vector<float> values = {5.0f};  // appended to
        EXPECT_EQ(base64String2Float(encoded(c.numbers), values), c.good) << c.numbers;
        ASSERT_EQ(values.size(), c.patterns.size() + 1) << c.numbers;
        for (size_t i = 0; i < c.patterns.size(); ++i) {
            EXPECT_EQ(std::bit_cast<uint32_t>(values[i + 1]), c.patterns[i]);
        }
    }
}

TEST(JsonText, RefusalLeavesNull) {
    const std::string deep(2000, '[');
    const std::string refused[] = {
        "", "{", "{\"a\":1,", "5", "null", "{\"a\":1,}", "[/* no */ 1]", "{\"a\":[1,2}", deep};
    for (const std::string& text : refused) {
        Json::Value value = "old";
        EXPECT_FALSE(stringToJsonGroup(text, value)) << text;
        EXPECT_TRUE(value.isNull()) << text;
    }
    Json::Value value = "old";
    EXPECT_FALSE(stringToJson(nullptr, 5, value));
    EXPECT_TRUE(value.isNull());
    EXPECT_FALSE(stringToJson("{}", 0, value));
    EXPECT_TRUE(stringToJsonGroup("[1]xyz", 3, value)) << "no byte behind the size is read";
    EXPECT_EQ(value[0], 1);
    EXPECT_TRUE(stringToJson("{\"a\":1}x", value)) << "what follows the document is not looked at";
}

TEST(JsonText, MergeIsDeepForObjectsOnly) {
    const struct {
        const char* base;
        const char* overlay;
        const char* result;
    } cases[] = {
        {R"({"a":{"x":1}})", R"({"a":{"y":2},"b":3})", R"({"a":{"x":1,"y":2},"b":3})"},
        {R"({"a":[1,2],"b":{"c":1}})", R"({"a":[3],"b":4})", R"({"a":[3],"b":4})"},
        {R"({"a":1})", R"([1])", R"({"a":1})"},
        {R"([1])", R"({"a":1})", R"([1])"},
        {R"({"a":1})", R"({"a":{"b":{}}})", R"({"a":{"b":{}}})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(jsonMerge(json(c.base), json(c.overlay)), json(c.result)) << c.base;
    }
    EXPECT_EQ(jsonToString(json("{\"a\": [1, 2]}"), false), "{\"a\":[1,2]}\n");
    EXPECT_EQ(jsonToString(json("{\"a\":1}"), true), "{\n   \"a\" : 1\n}\n");
}

TEST(Random, Identifiers) {
    const std::string id = createRandomUUID();
    EXPECT_EQ(id.size(), 36u);
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef-"), std::string::npos) << id;
    for (const auto& [size, length] : {std::pair(8, 8u), {100, 32u}, {-1, 0u}}) {
        const std::string cut = createRandomGUID(size);
        EXPECT_EQ(cut.size(), length);
        EXPECT_EQ(cut.find('-'), std::string::npos);
    }
}

TEST(Random, GenerateUuidNeverRepeatsAmongThreads) {
    constexpr int kEach = 2000;
    std::set<uint64_t> made[2];
    const auto make = [](std::set<uint64_t>& ids) {
        for (int i = 0; i < kEach; ++i) {
            uint64_t id = 0;
            generateUUID(reinterpret_cast<uint8_t*>(&id), sizeof id);
            ids.insert(id);
        }
    };
    std::thread other([&] { make(made[1]); });
    make(made[0]);
    other.join();
    made[0].merge(made[1]);
    EXPECT_EQ(made[0].size(), 2u * kEach);
    generateUUID(nullptr, 5);
}

TEST(Random, RangesAreKeptAndReached) {
    std::set<uint32_t> seen;
    for (int i = 0; i < 1000; ++i) {
        seen.insert(generateRandom(4));
    }
    EXPECT_EQ(seen, (std::set<uint32_t>{0, 1, 2, 3}));
    EXPECT_EQ(createRandNum(0, 7), 7);
    for (int range : {1, 5, -5}) {
        const int value = createRandNum(range, 100);
        EXPECT_TRUE(value >= 100 && value < 100 + std::abs(range)) << value;
    }
    const std::string many = getRandString(10000);
    EXPECT_EQ(std::set<char>(many.begin(), many.end()).size(), 62u);
    EXPECT_EQ(getRandString(-3), "");
    std::string other;
    std::thread([&] { other = getRandString(20); }).join();
    EXPECT_NE(other, getRandString(20));
}

}  // namespace
