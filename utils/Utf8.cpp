#include "utils/Utf8.h"

#include <cstddef>
#include <cstdint>

namespace Vantel::Utils {

namespace {

constexpr struct {
    uint8_t mask;    // of the first byte
    uint8_t mark;    // what the mask leaves of it
    uint32_t least;  // smaller code points have a shorter form
} kForms[] = {{0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};

bool isCodePoint(uint32_t point, uint32_t least) {
    return point >= least && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
}

/// The length of the character in front, 0 if it is none.
size_t characterLength(std::string_view text) {
    const auto first = static_cast<uint8_t>(text[0]);
    size_t length = 0;
    for (const auto& form : kForms) {
        ++length;
        if ((first & form.mask) != form.mark) {
            continue;
        }
        if (text.size() < length) {
            return 0;
        }
        uint32_t point = first & static_cast<uint8_t>(~form.mask);
        for (size_t i = 1; i < length; ++i) {
            const auto next = static_cast<uint8_t>(text[i]);
            if ((next & 0xC0) != 0x80) {
                return 0;
            }
            point = point << 6 | (next & 0x3F);
        }
        return isCodePoint(point, form.least) ? length : 0;
    }
    return 0;
}

}  // namespace

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = characterLength(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

}  // namespace Vantel::Utils
