#include "Vantel/Orbel/CTime.h"

#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <limits>
#include <tuple>

#include "frame/base/Log.h"
#include "time/Calendar.h"
#include "time/PrintClock.h"

namespace Vantel::Orbel {

namespace {

struct DstSettings {
    bool enabled = false;
    int64_t offset = 3600;  // seconds
    SystemTime start{};
    SystemTime end{};
};

constinit DstSettings dst;

bool inOrder(const SystemTime& left, const SystemTime& right) {
    const auto key = [](const SystemTime& t) {
        return std::tie(t.month, t.day, t.hour, t.minute, t.second);
    };
    return key(left) < key(right);
}

/// A rule with its day filled in for `year`.
SystemTime ruleOf(const SystemTime& rule, int year) {
    SystemTime fixed = rule;
    fixed.year = year;
    if (rule.week != 0) {
        const int day = dayOfNthWeekday(year, rule.month, rule.wday, rule.week);
        fixed.day = day != 0 ? day : rule.day;
    }
    return fixed;
}

/// The start is compared with standard time and the end with summer time, each as the rules name
/// them. In the last standard hour of a year and in the last hour of DST this answers for the
/// other side; so it is meant.
bool inDst(uint64_t utcSeconds) {
    SystemTime standard;
    SystemTime summer;
    utcToTime(utcSeconds, standard);
    utcToTime(static_cast<uint64_t>(clampSecond(static_cast<int64_t>(utcSeconds) + dst.offset)),
              summer);
    const SystemTime start = ruleOf(dst.start, standard.year);
    const SystemTime end = ruleOf(dst.end, summer.year);
    const bool started = !inOrder(standard, start);
    const bool ended = !inOrder(summer, end);
    const bool spansNewYear = inOrder(end, start);
    return spansNewYear ? !ended || started : started && !ended;
}

bool readMonotonic(timespec& now) {
    return clock_gettime(CLOCK_MONOTONIC, &now) == 0;
}

/// The fields moved by a sum that may have overflowed; `isDst` stays.
CTime moved(const CTime& from, bool overflow, int64_t sum, bool forward) {
    if (overflow) {
        sum = forward ? std::numeric_limits<int64_t>::max() : 0;
    }
    CTime result;
    milliSecondsToTime(static_cast<uint64_t>(sum < 0 ? 0 : sum), result);
    result.isDst = from.isDst;
    return result;
}

}  // namespace

constinit const CTime CTime::minTime{SystemTime{1970, 1, 1, 4, 0, 0, 0, 0, 0, 1}};
constinit const CTime CTime::maxTime{SystemTime{9999, 1, 1, 5, 0, 0, 0, 0, 0, 1}};

// Plural, as the names of the header would hide the fields.
CTime::CTime(int years, int months, int days, int hours, int minutes, int seconds, int milliseconds)
    : SystemTime{years, months, days, 0, hours, minutes, seconds, milliseconds, 0, 0} {
    normalizeTime(*this);
}

CTime::CTime(uint64_t ms) : SystemTime() {
    breakTime(ms);
}

uint64_t CTime::getCurrentMilliSecond() {
    timespec now;
    if (!readMonotonic(now)) {
        ORBEL_LOG_ERROR("CTime::getCurrentMilliSecond, sys_clock_gettime failed, error : %ld\n",
                        static_cast<long>(errno));
        return 0;
    }
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

uint64_t CTime::getCurrentMicroSecond() {
    timespec now;
    if (!readMonotonic(now)) {
        ORBEL_LOG_ERROR("CTime::getCurrentMicroSecond, sys_clock_gettime failed, error : %ld\n",
                        static_cast<long>(errno));
        return 0;
    }
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

uint64_t CTime::getCurrentUTCtime() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

CTime CTime::getCurrentTime() {
    return {getCurrentUTCtime()};
}

CTime CTime::getCurTimeForPrint() {
    return PrintClock::instance().now();
}

void CTime::setDst(bool enable, const SystemTime& start, const SystemTime& end, int offsetSeconds) {
    dst = {enable, offsetSeconds, start, end};
}

void CTime::disableTimezone() {
    timezoneDisable();
}

void CTime::setTimezoneOffset(long seconds) {
    setUTCTimezoneOffset(seconds);
}

uint64_t CTime::gmtToUtcTimestamp(CTime& time) {
    const uint64_t seconds = gmtTimeToUtc(time);
    return seconds * 1000 + static_cast<uint64_t>(time.millisecond);
}

uint64_t CTime::makeTime() const {
    SystemTime exact = *this;
    normalizeTime(exact);
    uint64_t seconds = timeToUtc(exact);
    if (dst.enabled && inDst(seconds)) {
        seconds = static_cast<uint64_t>(clampSecond(static_cast<int64_t>(seconds) - dst.offset));
    }
    return seconds * 1000 + static_cast<uint64_t>(exact.millisecond);
}

void CTime::breakTime(uint64_t ms) {
    uint64_t seconds = static_cast<uint64_t>(clampSecond(static_cast<int64_t>(ms / 1000)));
    const bool summer = dst.enabled && inDst(seconds);
    if (summer) {
        seconds = static_cast<uint64_t>(clampSecond(static_cast<int64_t>(seconds) + dst.offset));
    }
    utcToTime(seconds, *this);
    millisecond = static_cast<int>(ms % 1000);
    isDst = summer ? 1 : 0;
}

CTime CTime::operator+(long ms) const {
    int64_t sum = 0;
    const bool overflow =
        __builtin_add_overflow(static_cast<int64_t>(timeToMilliSeconds(*this)), ms, &sum);
    return moved(*this, overflow, sum, ms > 0);
}

CTime CTime::operator-(long ms) const {
    int64_t sum = 0;
    const bool overflow =
        __builtin_sub_overflow(static_cast<int64_t>(timeToMilliSeconds(*this)), ms, &sum);
    return moved(*this, overflow, sum, ms < 0);
}

CTime& CTime::operator+=(long ms) {
    return *this = *this + ms;
}

CTime& CTime::operator-=(long ms) {
    return *this = *this - ms;
}

long CTime::operator-(const CTime& other) const {
    return static_cast<long>(timeToMilliSeconds(*this)) -
           static_cast<long>(timeToMilliSeconds(other));
}

int CTime::compare(const CTime& other) const {
    const auto key = [](const CTime& t) {
        return std::tie(t.year, t.month, t.day, t.hour, t.minute, t.second, t.millisecond);
    };
    return key(*this) < key(other) ? -1 : key(other) < key(*this) ? 1 : 0;
}

}  // namespace Vantel::Orbel
