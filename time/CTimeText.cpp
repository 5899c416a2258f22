// The text side of CTime: the default format, format() and parse().

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CTime.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"

namespace Vantel::Orbel {

namespace {

using Field = int SystemTime::*;

constexpr int kUnknownOrder = -1;
/// By the number of the date format.
constexpr struct {
    const char* letters;
    std::array<Field, 3> fields;
} kDateOrders[] = {
    {"yMd", {&SystemTime::year, &SystemTime::month, &SystemTime::day}},
    {"Mdy", {&SystemTime::month, &SystemTime::day, &SystemTime::year}},
    {"dMy", {&SystemTime::day, &SystemTime::month, &SystemTime::year}},
};

struct DefaultFormat {
    static DefaultFormat& instance() {
        static auto* const format = new DefaultFormat;  // never destroyed
        return *format;
    }

    CMutex mutex;  // of the text; what is derived from it is read without
    std::string text = "yyyy-MM-dd HH:mm:ss";
    std::atomic<const char*> separator{"-"};
    std::atomic<int> dateOrder{0};
    std::atomic<bool> twelveHour{false};
};

/// `format`, or the default one for null.
std::string formatOrDefault(const char* format) {
    if (format != nullptr) {
        return format;
    }
    DefaultFormat& standard = DefaultFormat::instance();
    Guard<CMutex> guard(standard.mutex);
    return standard.text;
}

bool holds(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

/// The number of the date format, from the first "y", "M" and "d".
int dateOrderOf(const std::string& format) {
    for (int order = 0; order < 3; ++order) {
        const char* const letters = kDateOrders[order].letters;
        const size_t first = format.find(letters[0]);
        const size_t second = format.find(letters[1]);
        const size_t third = format.find(letters[2]);
        if (first < second && second < third && third != std::string::npos) {
            return order;
        }
    }
    return kUnknownOrder;
}

/// As dateOrderOf(); the program ends if there is none.
int knownDateOrder(const std::string& format) {
    const int dateFormat = dateOrderOf(format);
    ORBEL_REQUIRE(dateFormat != kUnknownOrder, "not support data format\n");
    return dateFormat;
}

const char* separatorOf(const std::string& format) {
    for (const char* candidate : {".", "/", "-"}) {
        if (holds(format, candidate)) {
            return candidate;
        }
    }
    return nullptr;
}

/// The text of one time, made while walking over a format.
class Writer {
public:
    Writer(const SystemTime& time, const std::string& format, int flags)
        : mTime(time),
          mSeparator((flags & CTime::kKeepSeparators) != 0 ? nullptr : CTime::getSeparator()),
          mDateFields(kDateOrders[(flags & CTime::kOwnDateOrder) != 0 ? knownDateOrder(format)
                                                                      : CTime::getDateFormat()]
                          .fields),
          mTwelveHour((flags & CTime::kOwnTwelveHour) != 0 ? holds(format, "h")
                                                           : CTime::get12Hour()) {
        for (size_t at = 0; at < format.size();) {
            const char letter = format[at];
            const size_t end = std::min(format.find_first_not_of(letter, at), format.size());
            writeRun(letter, end - at);
            at = end;
        }
    }

    const std::string& text() const { return mText; }

private:
    void writeRun(char letter, size_t length) {
        switch (letter) {
            case 'y':
            case 'M':
            case 'd':
                return writeDateField(length);
            case 'H':
            case 'h':
                return writeNumber(hour(), length);
            case 'm':
                return writeNumber(mTime.minute, length);
            case 's':
                return writeNumber(mTime.second, length);
            case 't':
                return writeHalfOfDay();
            case '-':
            case '.':
            case '/':
                for (size_t i = 0; i < length; ++i) {
                    mText += mSeparator == nullptr ? letter : *mSeparator;
                }
                return;
            default:
                mText.append(length, letter);
        }
    }

    /// The value comes from the order of the date, whatever the letter of the run; its width from
    /// the run's length, by the rule of the value.
    void writeDateField(size_t length) {
        const Field field = mDateFields[mDateRuns++ % mDateFields.size()];
        if (field != &SystemTime::year) {
            writeNumber(mTime.*field, length);
        } else if (length >= 3) {
            write("%04d", mTime.year);
        } else {
            write("%02d", mTime.year % 100);
        }
    }

    void writeNumber(int value, size_t length) { write(length > 1 ? "%02d" : "%d", value); }

    int hour() const {
        if (!mTwelveHour) {
            return mTime.hour;
        }
        return mTime.hour == 0 ? 12 : mTime.hour > 12 ? mTime.hour - 12 : mTime.hour;
    }

    void writeHalfOfDay() {
        if (mTwelveHour) {
            mText += mTime.hour <= 11 ? "AM" : "PM";
        } else {
            mText.erase(mText.find_last_not_of(' ') + 1);
        }
    }

    void write(const char* format, int value) {
        char digits[16];
        std::snprintf(digits, sizeof digits, format, value);
        mText += digits;
    }

    const SystemTime& mTime;
    const char* const mSeparator;  // null: as they stand in the format
    const std::array<Field, 3>& mDateFields;
    const bool mTwelveHour;
    size_t mDateRuns = 0;
    std::string mText;
};

/// The groups of digits in `text`, at most as many as fit; returns how many there are.
size_t readNumbers(const char* text, std::array<int, 6>& numbers) {
    constexpr const char* kDigits = "0123456789";
    size_t count = 0;
    while (count < numbers.size() && *(text += std::strcspn(text, kDigits)) != '\0') {
        numbers[count++] =
            static_cast<int>(std::min<long>(std::strtol(text, nullptr, 10), INT_MAX));
        text += std::strspn(text, kDigits);
    }
    return count;
}

/// The hour of the day of an hour on a twelve-hour clock.
bool leaveTwelveHour(const std::string& text, int& hour) {
    if (hour > 12) {
        ORBEL_LOG_ERROR("CTime parser input hour format is not accord with real value format.\n");
        return false;
    }
    if (holds(text, "PM")) {
        hour += hour == 12 ? 0 : 12;
        return true;
    }
    if (holds(text, "AM")) {
        hour = hour == 12 ? 0 : hour;
        return true;
    }
    ORBEL_LOG_ERROR("12 hours time point is unclear\n");
    return false;
}

bool readTime(const char* text, const std::string& format, SystemTime& time) {
    std::array<int, 6> numbers{};
    if (readNumbers(text, numbers) < numbers.size()) {
        ORBEL_LOG_ERROR("CTime parser input information is not enough.\n");
        return false;
    }
    const auto& date = kDateOrders[knownDateOrder(format)].fields;
    const std::array<Field, 6> fields = {
        date[0], date[1], date[2], &SystemTime::hour, &SystemTime::minute, &SystemTime::second};
    for (size_t i = 0; i < fields.size(); ++i) {
        time.*fields[i] = numbers[i];
    }
    return !holds(format, "h") || leaveTwelveHour(text, time.hour);
}

}  // namespace

void CTime::setFormatString(const char* format) {
    DefaultFormat& standard = DefaultFormat::instance();
    Guard<CMutex> guard(standard.mutex);
    standard.text = format == nullptr ? "" : format;
    const char* const separator = separatorOf(standard.text);
    ORBEL_REQUIRE(separator != nullptr, "not support separator flag\n");
    standard.separator = separator;
    standard.twelveHour = holds(standard.text, "h");
    standard.dateOrder = knownDateOrder(standard.text);
}

int CTime::getDateFormat() {
    return DefaultFormat::instance().dateOrder;
}

bool CTime::get12Hour() {
    return DefaultFormat::instance().twelveHour;
}

const char* CTime::getSeparator() {
    return DefaultFormat::instance().separator;
}

void CTime::format(char* buffer, const char* format, int flags) const {
    ORBEL_REQUIRE(buffer != nullptr, "buffer is null\n");
    const std::string pattern = formatOrDefault(format);
    const std::string text = Writer(*this, pattern, flags).text();
    std::memcpy(buffer, text.c_str(), text.size() + 1);
}

bool CTime::parse(const char* text, const char* format, int /*flags*/) {
    if (!readTime(text == nullptr ? "" : text, formatOrDefault(format), *this)) {
        static_cast<SystemTime&>(*this) = {};
        return false;
    }
    normalizeTime(*this);
    return true;
}

}  // namespace Vantel::Orbel
