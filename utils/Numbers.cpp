#include "Vantel/Utils/Numbers.h"

#include <json/json.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "Vantel/Utils/Base64.h"
#include "Vantel/Utils/Strings.h"

namespace Vantel::Utils {

namespace {

static_assert(sizeof(float) == sizeof(uint32_t));

/// What does not fit becomes the smallest number, as on the processor; the bare cast is undefined.
int32_t truncate(double value) {
    constexpr double kLimit = 2147483648.0;
    return value > -kLimit - 1 && value < kLimit ? static_cast<int32_t>(value)
                                                 : std::numeric_limits<int32_t>::min();
}

bool isNumber(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

float round(float value, int digits) {
    if (digits < 0) {
        return 0;
    }
    const double power = std::pow(10.0, digits);
    // Half a unit is taken off, not added: so it is meant.
    const int32_t units = truncate((0.5 / power - std::fabs(static_cast<double>(value))) * power);
    const double magnitude = std::fabs(units / power);
    return static_cast<float>(value < 0 ? -magnitude : magnitude);
}

std::string toPrecisionString(float value, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, static_cast<double>(value));
    return text;
}

bool floatVecToJsonString(const std::vector<float>& values, std::string& json) {
    Json::Value array(Json::arrayValue);
    for (const float value : values) {
        array.append(static_cast<double>(value));
    }
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    json = Json::writeString(compact, array);
    return true;
}

std::string floatVecToJsonString(const std::vector<float>& values) {
    std::string json;
    floatVecToJsonString(values, json);
    return json;
}

bool float2Base64String(const std::vector<float>& values, std::string& text) {
    std::string numbers;
    for (const float value : values) {
        if (!numbers.empty()) {
            numbers += ' ';
        }
        numbers += std::to_string(std::bit_cast<uint32_t>(value));
    }
    text = base64Encode(reinterpret_cast<const unsigned char*>(numbers.data()),
                        static_cast<unsigned int>(numbers.size()));
    return true;
}

bool base64String2Float(const std::string& text, std::vector<float>& values) {
    const std::string numbers = base64Decode(text);
    if (numbers.empty()) {
        return false;
    }
    for (const std::string& number : splitString(numbers, ' ')) {
        if (!isNumber(number)) {
            return false;
        }
        const unsigned long pattern = std::strtoul(number.c_str(), nullptr, 10);
        values.push_back(std::bit_cast<float>(static_cast<uint32_t>(pattern)));
    }
    return true;
}

}  // namespace Vantel::Utils
