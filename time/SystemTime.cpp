#include "Vantel/Orbel/SystemTime.h"

#include <time.h>

#include <algorithm>
#include <atomic>

#include "time/Calendar.h"

namespace Vantel::Orbel {

namespace {

constexpr int kFirstYear = 1970;
constexpr int kLastYear = 9999;
constexpr int kDaysInMonth[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
constexpr int64_t kOffsetUnknown = -1;

bool timezoneEnabled = true;
std::atomic<int64_t> utcOffset{kOffsetUnknown};  // seconds west of UTC

/// What conversions subtract from UTC.
int64_t offsetInUse() {
    if (!timezoneEnabled) {
        return 0;
    }
    int64_t offset = utcOffset.load(std::memory_order_relaxed);
    if (offset == kOffsetUnknown) {
        tzset();  // `timezone` is 0 before
        // An offset that was set meanwhile wins; the exchange then loads it.
        if (utcOffset.compare_exchange_strong(offset, timezone, std::memory_order_relaxed)) {
            offset = timezone;
        }
    }
    return offset;
}

constexpr bool isLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

constexpr int monthLength(int year, int month) {
    return month == 2 && isLeapYear(year) ? 29 : kDaysInMonth[month - 1];
}

/// Days from 1970-01-01 to the first of January of `year`.
constexpr int64_t daysBeforeYear(int year) {
    const auto leapDays = [](int64_t last) { return last / 4 - last / 100 + last / 400; };
    return int64_t{365} * (year - kFirstYear) + leapDays(year - 1) - leapDays(kFirstYear - 1);
}

int64_t secondsOf(const SystemTime& time) {
    int64_t days = daysBeforeYear(time.year) + time.day - 1;
    for (int month = 1; month < time.month; ++month) {
        days += monthLength(time.year, month);
    }
    return days * kSecondsPerDay + time.hour * 3600 + time.minute * 60 + time.second;
}

void breakSeconds(int64_t seconds, SystemTime& time) {
    int64_t days = seconds / kSecondsPerDay;
    time.year = static_cast<int>(kFirstYear + days * 400 / 146097);  // at most one off
    while (daysBeforeYear(time.year) > days) {
        --time.year;
    }
    while (daysBeforeYear(time.year + 1) <= days) {
        ++time.year;
    }
    days -= daysBeforeYear(time.year);
    time.month = 1;
    while (days >= monthLength(time.year, time.month)) {
        days -= monthLength(time.year, time.month++);
    }
    const auto inDay = static_cast<int>(seconds % kSecondsPerDay);
    time.day = static_cast<int>(days) + 1;
    time.wday = dateToWeekday(time.year, time.month, time.day);
    time.hour = inDay / 3600;
    time.minute = inDay / 60 % 60;
    time.second = inDay % 60;
    time.millisecond = 0;
    time.isDst = 0;
    time.week = (time.day + 6) / 7;
}

SystemTime normalized(SystemTime time) {
    normalizeTime(time);
    return time;
}

/// The first `wday` of the month, 0 for arguments out of range.
int firstWeekday(int year, int month, int wday) {
    if (month < 1 || month > 12 || wday < 0 || wday > 6) {
        return 0;
    }
    return 1 + (wday - dateToWeekday(year, month, 1) + 7) % 7;
}

}  // namespace

int64_t clampSecond(int64_t value) {
    return std::clamp<int64_t>(value, 0, kLastSecond);
}

int dayOfNthWeekday(int year, int month, int wday, int number) {
    const int first = firstWeekday(year, month, wday);
    if (first == 0) {
        return 0;
    }
    const int count = 1 + (monthLength(year, month) - first) / 7;
    return first + 7 * ((number < 1 || number > count ? count : number) - 1);
}

void timezoneDisable() {
    timezoneEnabled = false;
}

void setUTCTimezoneOffset(long seconds) {
    utcOffset.store(std::clamp<int64_t>(seconds, -kLastSecond, kLastSecond),
                    std::memory_order_relaxed);
}

int dateToWeekday(int year, int month, int day) {
    // Sakamoto's method.
    constexpr int kMonthShift[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
    if (month < 1 || month > 12) {
        return -1;
    }
    const int64_t counted = int64_t{year} - (month < 3 ? 1 : 0);
    const int64_t days =
        counted + counted / 4 - counted / 100 + counted / 400 + kMonthShift[month - 1] + day;
    return static_cast<int>((days % 7 + 7) % 7);
}

void normalizeTime(SystemTime& time) {
    time.year = std::clamp(time.year, kFirstYear, kLastYear);
    time.month = std::clamp(time.month, 1, 12);
    // Only exactly the 29th survives in February of a leap year; the 30th becomes the 28th.
    const bool leapDay = time.month == 2 && time.day == 29 && isLeapYear(time.year);
    time.day = leapDay ? 29 : std::clamp(time.day, 1, kDaysInMonth[time.month - 1]);
    if (time.hour > 23) {
        time.hour = 23;
        time.minute = 59;
        time.second = 59;
    }
    time.hour = std::max(time.hour, 0);
    time.minute = std::clamp(time.minute, 0, 59);
    time.second = std::clamp(time.second, 0, 59);
    time.millisecond = std::clamp(time.millisecond, 0, 999);
    time.wday = dateToWeekday(time.year, time.month, time.day);
    time.week = (time.day + 6) / 7;
}

void utcToTime(uint64_t seconds, SystemTime& time) {
    const auto utc = static_cast<int64_t>(std::min<uint64_t>(seconds, 2 * kLastSecond));
    breakSeconds(clampSecond(utc - offsetInUse()), time);
}

uint64_t timeToUtc(const SystemTime& time) {
    const int64_t utc = secondsOf(normalized(time)) + offsetInUse();
    return static_cast<uint64_t>(std::max<int64_t>(utc, 0));
}

void milliSecondsToTime(uint64_t milliseconds, SystemTime& time) {
    const auto seconds = static_cast<int64_t>(milliseconds / 1000);
    breakSeconds(clampSecond(seconds), time);
    time.millisecond = static_cast<int>(milliseconds % 1000);
}

uint64_t timeToMilliSeconds(const SystemTime& time) {
    const SystemTime exact = normalized(time);
    return static_cast<uint64_t>(secondsOf(exact) * 1000 + exact.millisecond);
}

uint64_t gmtTimeToUtc(SystemTime& time) {
    normalizeTime(time);
    return static_cast<uint64_t>(secondsOf(time));
}

bool getWeekDays(int year, int month, int wday, std::vector<int>& days) {
    days.clear();
    const int first = firstWeekday(year, month, wday);
    if (first == 0) {
        return false;
    }
    for (int day = first; day <= monthLength(year, month); day += 7) {
        days.push_back(day);
    }
    return true;
}

}  // namespace Vantel::Orbel
