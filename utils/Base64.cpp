#include "Vantel/Utils/Base64.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>

namespace Vantel::Utils {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t kNoValue = 64;

/// The six bits of each character, kNoValue outside the alphabet.
constexpr std::array<uint8_t, 256> kValues = [] {
    std::array<uint8_t, 256> values{};
    values.fill(kNoValue);
    for (uint8_t i = 0; i < kNoValue; ++i) {
        values[static_cast<unsigned char>(kAlphabet[i])] = i;
    }
    return values;
}();

uint8_t valueOf(char c) {
    return kValues[static_cast<unsigned char>(c)];
}

int saturate(int64_t length) {
    return static_cast<int>(std::min<int64_t>(length, std::numeric_limits<int>::max()));
}

}  // namespace

std::string base64Encode(const unsigned char* data, unsigned int size) {
    std::string text;
    if (data == nullptr) {
        return text;
    }
    text.reserve((size_t{size} + 2) / 3 * 4);
    for (size_t at = 0; at < size; at += 3) {
        const size_t count = std::min<size_t>(size - at, 3);
        uint32_t bits = uint32_t{data[at]} << 16;
        bits |= count > 1 ? uint32_t{data[at + 1]} << 8 : 0;
        bits |= count > 2 ? uint32_t{data[at + 2]} : 0;
        text += kAlphabet[bits >> 18];
        text += kAlphabet[bits >> 12 & 63];
        text += count > 1 ? kAlphabet[bits >> 6 & 63] : '=';
        text += count > 2 ? kAlphabet[bits & 63] : '=';
    }
    return text;
}

std::string base64Decode(const std::string& text) {
    std::string data;
    data.reserve(text.size() / 4 * 3 + 3);
    uint32_t bits = 0;
    int held = 0;  // bits not yet given out, below 8
    for (const char c : text) {
        if (c == '=') {
            break;
        }
        if (c == '\r' || c == '\n') {
            continue;
        }
        const uint8_t value = valueOf(c);
        if (value == kNoValue) {
            return {};
        }
        bits = bits << 6 | value;
        held += 6;
        if (held >= 8) {
            held -= 8;
            data += static_cast<char>(bits >> held & 0xff);
        }
    }
    return data;
}

int base64EncodeLength(int size) {
    return saturate((int64_t{size} + 2) / 3 * 4 + 1);
}

int base64DecodeLength(const std::string& text) {
    const auto stop =
        std::find_if(text.begin(), text.end(), [](char c) { return valueOf(c) == kNoValue; });
    const int64_t count = stop - text.begin() + 1;
    return saturate((count + 2) / 4 * 3 + 1);
}

}  // namespace Vantel::Utils
