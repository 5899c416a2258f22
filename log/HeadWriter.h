#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "Vantel/Orbel/SystemTime.h"

namespace Vantel::Log {

/// Writes the head of a log line piece by piece; stops writing at the end of its room, but goes on
/// counting. Does by hand what a printf would take longer for than for the message itself.
class HeadWriter {
public:
    HeadWriter(char* begin, size_t room) : mBegin(begin), mRoom(room) {}

    HeadWriter& put(char c) {
        if (mLength < mRoom) {
            mBegin[mLength] = c;
        }
        ++mLength;
        return *this;
    }

    HeadWriter& put(std::string_view text) {
        if (mLength < mRoom) {
            std::memcpy(mBegin + mLength, text.data(), std::min(text.size(), mRoom - mLength));
        }
        mLength += text.size();
        return *this;
    }

    HeadWriter& number(unsigned value) {
        char digits[10];
        const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        return put(std::string_view(digits, static_cast<size_t>(end - digits)));
    }

    /// "[YYYY-MM-DD HH:MM:SS.mmm]" of a normalised time.
    HeadWriter& stamp(const Orbel::SystemTime& time) {
        char text[] = "[0000-00-00 00:00:00.000]";
        digits(text + 1, 4, time.year);
        digits(text + 6, 2, time.month);
        digits(text + 9, 2, time.day);
        digits(text + 12, 2, time.hour);
        digits(text + 15, 2, time.minute);
        digits(text + 18, 2, time.second);
        digits(text + 21, 3, time.millisecond);
        return put(std::string_view(text, sizeof text - 1));
    }

    /// The length of all that was put, written or not.
    size_t length() const { return mLength; }

private:
    static void digits(char* to, int count, int value) {
        auto rest = static_cast<unsigned>(value);
        while (count > 0) {
            to[--count] = static_cast<char>('0' + rest % 10);
            rest /= 10;
        }
    }

    char* mBegin;
    size_t mRoom;
    size_t mLength = 0;
};

}  // namespace Vantel::Log
