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

TEST(Base64, VectorsOfRfc4648AndAllBytesThereAndBack) {
    EXPECT_EQ(encoded(""), "");
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
}

TEST(Base64, DecodingSkipsLineEndsStopsAtPaddingAndRefusesTheRest) {
    const struct {
        const char* text;
        const char* data;
    } cases[] = {
        {"", ""},        {"QUJD\n", "ABC"}, {"QU\r\nJD", "ABC"}, {"QU*D", ""},     {"QUJD ", ""},
        {"QUI=*", "AB"}, {"Q", ""},         {"QUJDR", "ABC"},    {"QUJD\xff", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(base64Decode(c.text), c.data) << c.text;
    }
}

TEST(Base64, LengthsStayAnIntAndCountUpToTheFirstForeignCharacter) {
    EXPECT_EQ(base64EncodeLength(4), 9);
    EXPECT_EQ(base64EncodeLength(std::numeric_limits<int>::max()), std::numeric_limits<int>::max());
    EXPECT_EQ(base64DecodeLength(""), 1);
    EXPECT_EQ(base64DecodeLength("QU=JDRJDR"), 4);
    EXPECT_EQ(base64DecodeLength("QUJDR"), 7);
}

TEST(Checksum, CheckValuesAndPieces) {
    const std::string text = "123456789";
    EXPECT_EQ(crc16(0, bytes(text), 9), 0xBB3D);
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
        const char* text;
        const char* from;
        const char* to;
        bool done;
        const char* result;
    } cases[] = {
        {"", "a", "b", false, ""},
        {"abab", "ab", "abab", true, "abababab"},  // what was put in is not replaced again
        {"aaa", "aa", "b", true, "ba"},
        {"abc", "x", "y", true, "abc"},
        {"abc", "", "y", true, "abc"},
        {"a'b''", "'", "", true, "ab"},
    };
    for (const auto& c : cases) {
        std::string text = c.text;
        EXPECT_EQ(replaceAllString(text, c.from, c.to), c.done) << c.text;
        EXPECT_EQ(text, c.result);
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
    const char* const refused[] = {"0g", "g0", "0:", "@0", "0`", "0/"};
    for (const char* text : refused) {
        EXPECT_EQ(hexToBin(text, 2), "") << text;
    }
    EXPECT_EQ(hexToBin(nullptr, 2), "");
    EXPECT_EQ(hexToBin("00", -1), "");
    EXPECT_EQ(charToHex(16), 'G') << "no upper bound";
}

TEST(Strings, Splits) {
    EXPECT_EQ(splitString("a,,b", ','), (Fields{"a", "", "b"}));
    EXPECT_EQ(splitString("a,", ','), (Fields{"a"}));
    EXPECT_EQ(splitString(",a", ','), (Fields{"", "a"}));
    EXPECT_EQ(splitString("", ','), Fields{});

    EXPECT_EQ(splitString("a,,b", ","), (Fields{"a", "b"}));
    EXPECT_EQ(splitString(",a,", ","), (Fields{"a"}));
    EXPECT_EQ(splitString("a--b", "--"), (Fields{"a", "b"}));
    EXPECT_EQ(splitString("--x", "--"), (Fields{"-x"})) << "the scan moves on by one";
    EXPECT_EQ(splitString("", ","), Fields{});
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

TEST(Strings, OnlyAsciiIsAlphaNumeric) {
    std::string found;
    for (int c = 0; c < 256; ++c) {
        found += isAlphaNumber(static_cast<unsigned char>(c)) ? std::string(1, char(c)) : "";
    }
    EXPECT_EQ(found, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
}

TEST(Numbers, RoundTakesHalfAUnitOff) {
    const struct {
        float value;
        int digits;
        float result;
    } cases[] = {
        {1.234f, 2, 1.22f}, {1.236f, 2, 1.23f}, {-1.234f, 2, -1.22f},
        {2.7f, 0, 2.0f},    {0.3f, 0, 0.0f},    {1.5f, -1, 0.0f},
    };
    for (const auto& c : cases) {
        EXPECT_FLOAT_EQ(round(c.value, c.digits), c.result) << c.value;
    }
    EXPECT_FLOAT_EQ(round(1e30f, 2), 21474836.48f) << "32 bits overflow to the smallest number";
}

TEST(Numbers, PrecisionStringStaysInItsBuffer) {
    EXPECT_EQ(toPrecisionString(1.25f, 3), "1.250");
    EXPECT_EQ(toPrecisionString(-2.0f, 0), "-2");
    EXPECT_EQ(toPrecisionString(3.4e38f, 50).size(), 63u);
}

TEST(Numbers, FloatVectors) {
    EXPECT_EQ(floatVecToJsonString({1.0f, -2.5f}), "[1.0,-2.5]");
    EXPECT_EQ(floatVecToJsonString({}), "[]");

    std::string text;
    EXPECT_TRUE(float2Base64String({1.0f, 2.0f}, text));
    EXPECT_EQ(text, encoded("1065353216 1073741824"));
    EXPECT_TRUE(float2Base64String({}, text));
    EXPECT_EQ(text, "");

    const std::vector<float> exact = {0.1f, -0.0f, std::numeric_limits<float>::denorm_min(),
                                      std::numeric_limits<float>::infinity(), std::nanf("7")};
    EXPECT_TRUE(float2Base64String(exact, text));
    std::vector<float> back = {5.0f};  // appended to
    EXPECT_TRUE(base64String2Float(text, back));
    ASSERT_EQ(back.size(), exact.size() + 1);
    for (size_t i = 0; i < exact.size(); ++i) {
        EXPECT_EQ(std::bit_cast<uint32_t>(back[i + 1]), std::bit_cast<uint32_t>(exact[i]));
    }

    const struct {
        const char* numbers;
        bool good;
        std::vector<uint32_t> patterns;
    } cases[] = {
        {"12 -3", false, {12}},
        {"12 3x 4", false, {12}},
        {"", false, {}},
        {"4294967297", true, {1}},  // the low 32 bits
        {"99999999999999999999999", true, {0xffffffffu}},
    };
    for (const auto& c : cases) {
        std::vector<float> values;
        EXPECT_EQ(base64String2Float(encoded(c.numbers), values), c.good) << c.numbers;
        ASSERT_EQ(values.size(), c.patterns.size()) << c.numbers;
        for (size_t i = 0; i < values.size(); ++i) {
            EXPECT_EQ(std::bit_cast<uint32_t>(values[i]), c.patterns[i]);
        }
    }
}

TEST(JsonText, RefusalLeavesNull) {
    const std::string deep(2000, '[');
    const std::string refused[] = {
        "", "{", "{\"a\":1,", "5", "null", "{\"a\":1,}", "[/* no */ 1]", "{\"a\":[1,2}", deep};
    for (const std::string& text : refused) {
        Json::Value value = "old";
        EXPECT_FALSE(stringToJson(text, value)) << text;
        EXPECT_TRUE(value.isNull()) << text;
        value = "old";
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
    EXPECT_EQ(createRandomGUID(8).size(), 8u);
    EXPECT_EQ(createRandomGUID(100).size(), 32u);
    EXPECT_EQ(createRandomGUID(-1).size(), 0u);
    EXPECT_EQ(createRandomGUID(32).find('-'), std::string::npos);
    EXPECT_NE(createRandomGUID(32), createRandomGUID(32));
}

TEST(Random, GenerateUuidNeverRepeatsAmongThreads) {
    constexpr int kEach = 2000;
    std::vector<std::vector<uint64_t>> made(2);
    std::vector<std::thread> threads;
    for (auto& ids : made) {
        threads.emplace_back([&ids] {
            for (int i = 0; i < kEach; ++i) {
                uint64_t id = 0;
                generateUUID(reinterpret_cast<uint8_t*>(&id), sizeof id);
                ids.push_back(id);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    std::set<uint64_t> all;
    for (const auto& ids : made) {
        all.insert(ids.begin(), ids.end());
    }
    EXPECT_EQ(all.size(), 2u * kEach);
    generateUUID(nullptr, 5);
}

TEST(Random, RangesAreKeptAndReached) {
    std::set<uint32_t> seen;
    for (int i = 0; i < 1000; ++i) {
        const uint32_t value = generateRandom(4);
        ASSERT_LT(value, 4u);
        seen.insert(value);
    }
    EXPECT_EQ(seen.size(), 4u);
    EXPECT_EQ(createRandNum(0, 7), 7);
    for (int range : {1, 5, -5}) {
        const int value = createRandNum(range, 100);
        EXPECT_GE(value, 100);
        EXPECT_LT(value, 100 + std::abs(range));
    }
    std::set<char> letters;
    for (const char c : getRandString(10000)) {
        letters.insert(c);
    }
    EXPECT_EQ(letters.size(), 62u);
    EXPECT_EQ(getRandString(0), "");
    EXPECT_EQ(getRandString(-3), "");
    std::string other;
    std::thread([&] { other = getRandString(20); }).join();
    EXPECT_NE(other, getRandString(20));
}

}  // namespace
