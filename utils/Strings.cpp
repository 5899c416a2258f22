#include "Vantel/Utils/Strings.h"

#include <sstream>

namespace Vantel::Utils {

namespace {

/// The value of a hexadecimal digit, -1 for any other character.
int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

}  // namespace

char charToHex(unsigned char v) {
    return static_cast<char>(v < 10 ? v + '0' : v + 55);
}

bool isAlphaNumber(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool stringValid(const char* s) {
    return s != nullptr && s[0] != '\0';
}

bool replaceAllString(std::string& text, const std::string& from, const std::string& to) {
    if (text.empty()) {
        return false;
    }
    if (from.empty()) {
        return true;
    }
    std::string result;
    size_t begin = 0;
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, begin)) {
        result.append(text, begin, at - begin).append(to);
        begin = at + from.size();
    }
    result.append(text, begin);
    text = std::move(result);
    return true;
}

std::string quoteStr(const std::string& text) {
    std::string result = text;
    replaceAllString(result, "'", "''");
    return result;
}

std::string& leftTrim(std::string& text, const std::string& chars) {
    const size_t kept = text.find_first_not_of(chars);
    return text.erase(0, kept);
}

std::string& rightTrim(std::string& text, const std::string& chars) {
    const size_t last = text.find_last_not_of(chars);
    text.resize(last == std::string::npos ? 0 : last + 1);
    return text;
}

std::string& trim(std::string& text, const std::string& chars) {
    rightTrim(text, chars);
    return leftTrim(text, chars);
}

std::string binToHex(const char* data, int size) {
    std::string text;
    for (int i = 0; data != nullptr && i < size; ++i) {
        const auto byte = static_cast<unsigned char>(data[i]);
        text += charToHex(byte >> 4);
        text += charToHex(byte & 15);
    }
    return text;
}

std::string hexToBin(const char* text, int size) {
    std::string data;
    for (int i = 0; text != nullptr && i < size; i += 2) {
        const int high = hexValue(text[i]);
        const int low = size - i > 1 ? hexValue(text[i + 1]) : 0;
        if (high < 0 || low < 0) {
            return {};
        }
        data += static_cast<char>(high << 4 | low);
    }
    return data;
}

std::vector<std::string> splitString(const std::string& text, char delimiter) {
    std::vector<std::string> fields;
    std::istringstream stream(text);
    for (std::string field; std::getline(stream, field, delimiter);) {
        fields.push_back(field);
    }
    return fields;
}

std::vector<std::string> splitString(const std::string& text, const std::string& delimiter) {
    std::vector<std::string> fields;
    const std::string whole = text + delimiter;
    size_t at = 0;
    while (at < whole.size()) {
        const size_t end = whole.find(delimiter, at);
        if (end == std::string::npos) {
            break;
        }
        if (end > at) {
            fields.push_back(whole.substr(at, end - at));
            at = end + delimiter.size();
        } else {
            ++at;  // by one, not by the delimiter's length: so it is meant
        }
    }
    return fields;
}

bool checkTimeFormat(const std::string& text) {
    // One or two digits of the hour, then ":mm:ss".
    if (text.size() < 7 || text.size() > 8) {
        return false;
    }
    const size_t colon = text.size() - 6;
    const auto digit = [&text](size_t at) { return text[at] >= '0' && text[at] <= '9'; };
    const auto belowSixty = [&](size_t at) {
        return text[at] == ':' && digit(at + 1) && text[at + 1] < '6' && digit(at + 2);
    };
    const bool hour = colon == 1 ? digit(0)
                                 : digit(1) && (text[0] == '0' || text[0] == '1' ||
                                                (text[0] == '2' && text[1] < '4'));
    return hour && belowSixty(colon) && belowSixty(colon + 3);
}

}  // namespace Vantel::Utils
