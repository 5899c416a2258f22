#include "Vantel/Orbel/CTime.h"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "tests/support/HelperProcess.h"
#include "tests/support/WaitFor.h"
#include "time/PrintClock.h"

using namespace Vantel::Orbel;

namespace {

constexpr uint64_t kHourMs = 3600000;
constexpr uint64_t kDayMs = 24 * kHourMs;

std::string text(const SystemTime& t) {
    char line[160];
    snprintf(line, sizeof line, "%04d-%02d-%02d %02d:%02d:%02d.%03d w%d k%d d%d", t.year, t.month,
             t.day, t.hour, t.minute, t.second, t.millisecond, t.wday, t.week, t.isDst);
    return line;
}

/// Milliseconds since 1970 of the fields as UTC, by the C library.
uint64_t utcMs(int year, int month, int day, int hour, int minute = 0, int second = 0) {
    tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    return static_cast<uint64_t>(timegm(&fields)) * 1000;
}

class CTimeTest : public testing::Test {
protected:
    CTimeTest() { CTime::setTimezoneOffset(0); }
    ~CTimeTest() override {
        CTime::setDst(false, {}, {}, 3600);
        CTime::setTimezoneOffset(0);
    }
};

TEST_F(CTimeTest, NormalizingClampsAndNeverCarries) {
    const struct {
        const char* why;
        CTime time;
        const char* result;
    } cases[] = {
        {"leap day", {2024, 2, 29, 0, 0, 0, 0}, "2024-02-29 00:00:00.000 w4 k5 d0"},
        {"no leap day", {2023, 2, 29, 0, 0, 0, 0}, "2023-02-28 00:00:00.000 w2 k4 d0"},
        {"only exactly 29 is kept", {2024, 2, 30, 0, 0, 0, 0}, "2024-02-28 00:00:00.000 w3 k4 d0"},
        {"century without", {1900 + 200, 2, 29, 0, 0, 0, 0}, "2100-02-28 00:00:00.000 w0 k4 d0"},
        {"month above", {2024, 13, 1, 1, 2, 3, 4}, "2024-12-01 01:02:03.004 w0 k1 d0"},
        {"month below", {2024, 0, 31, 1, 2, 3, 4}, "2024-01-31 01:02:03.004 w3 k5 d0"},
        {"year below", {1900, 1, 1, 0, 0, 0, 0}, "1970-01-01 00:00:00.000 w4 k1 d0"},
        {"year above", {10000, 4, 31, 0, 0, 0, 0}, "9999-04-30 00:00:00.000 w5 k5 d0"},
        {"hour above", {2024, 1, 7, 25, 1, 2, 3}, "2024-01-07 23:59:59.003 w0 k1 d0"},
        {"all below", {-5, -5, -5, -5, -5, -5, -5}, "1970-01-01 00:00:00.000 w4 k1 d0"},
        {"small above", {2024, 1, 8, 22, 60, 60, 1000}, "2024-01-08 22:59:59.999 w1 k2 d0"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(text(c.time), c.result) << c.why;
    }
}

TEST_F(CTimeTest, AgreesWithTheCLibraryOverAllTheRange) {
    std::mt19937_64 random(1);
    for (int i = 0; i < 400000; ++i) {
        const uint64_t seconds = random() % 253402300800;  // up to the end of 9999
        const auto asTime = static_cast<time_t>(seconds);
        tm expected{};
        gmtime_r(&asTime, &expected);
        SystemTime t;
        utcToTime(seconds, t);
        ASSERT_TRUE(t.year == expected.tm_year + 1900 && t.month == expected.tm_mon + 1 &&
                    t.day == expected.tm_mday && t.wday == expected.tm_wday &&
                    t.hour == expected.tm_hour && t.minute == expected.tm_min &&
                    t.second == expected.tm_sec)
            << seconds << " " << text(t);
        ASSERT_EQ(timeToUtc(t), seconds);
    }
}

TEST_F(CTimeTest, TheEndsOfTheRangeHold) {
    const char* const last = "9999-12-31 23:59:59.000 w5 k5 d0";
    SystemTime t;
    for (const uint64_t seconds : {uint64_t{253402300799}, uint64_t{253402300800}, UINT64_MAX}) {
        utcToTime(seconds, t);
        EXPECT_EQ(text(t), last) << seconds;
    }
    CTime::setTimezoneOffset(5 * 3600);  // west: early UTC would lie before 1970
    utcToTime(3600, t);
    EXPECT_EQ(text(t), "1970-01-01 00:00:00.000 w4 k1 d0");
    CTime::setTimezoneOffset(-5 * 3600);
    EXPECT_EQ(CTime::minTime.makeTime(), 0u) << "early local time in the east";
    for (const long absurd : {LONG_MIN, LONG_MAX}) {
        CTime::setTimezoneOffset(absurd);
        utcToTime(1000, t);
        EXPECT_EQ(t.year, absurd < 0 ? 9999 : 1970);
    }
    EXPECT_EQ(text(CTime::maxTime), text(CTime(9999, 1, 1, 0, 0, 0, 0)));
    EXPECT_EQ(text(CTime::minTime), text(CTime(1970, 1, 1, 0, 0, 0, 0)));
}

TEST_F(CTimeTest, TheOffsetAppliesToUtcConversionsOnly) {
    CTime::setTimezoneOffset(-8 * 3600);  // east
    const CTime t(utcMs(2024, 12, 31, 20) + 7);
    EXPECT_EQ(text(t), "2025-01-01 04:00:00.007 w3 k1 d0");
    EXPECT_EQ(t.makeTime(), utcMs(2024, 12, 31, 20) + 7);
    const uint64_t asTheyAre = utcMs(2025, 1, 1, 4) + 7;
    EXPECT_EQ(timeToMilliSeconds(t), asTheyAre);
    CTime copy = t;
    EXPECT_EQ(gmtTimeToUtc(copy), asTheyAre / 1000);
    EXPECT_EQ(CTime::gmtToUtcTimestamp(copy), asTheyAre);
    SystemTime plain;
    milliSecondsToTime(asTheyAre, plain);
    EXPECT_EQ(text(plain), text(t));
}

TEST_F(CTimeTest, TheCLibrarysTimeZoneIsTakenAtFirstUse) {
    const struct {
        const char* zone;
        std::vector<std::string> arguments;
        const char* line;
    } cases[] = {
        {"XYZ5", {}, "18000 18000"},
        {"XYZ-5:30", {}, "-19800 -19800"},
        {"XYZ5", {"off"}, "0 0"},
    };
    for (const auto& c : cases) {
        setenv("TZ", c.zone, 1);
        OrbelTest::HelperProcess helper("TimezoneHelper", c.arguments);
        EXPECT_TRUE(helper.waitForLine(c.line)) << c.zone;
    }
    unsetenv("TZ");
}

TEST_F(CTimeTest, ArithmeticIsOverTheFields) {
    CTime::setTimezoneOffset(3600);
    const CTime t(2024, 2, 28, 23, 59, 59, 999);
    EXPECT_EQ(text(t + 1), "2024-02-29 00:00:00.000 w4 k5 d0");
    EXPECT_EQ(text(t - 5), "2024-02-28 23:59:59.994 w3 k4 d0") << "a plain int is a difference";
    const auto days = static_cast<long>(400 * kDayMs);
    EXPECT_EQ(t - (t + days), -days);
    CTime moving = t;
    moving += days;
    moving -= 1000;
    EXPECT_EQ(moving - t, days - 1000);
    for (const CTime& first : {t - LONG_MAX, t + LONG_MIN}) {
        EXPECT_EQ(text(first).substr(0, 19), "1970-01-01 00:00:00");
    }
    for (const CTime& last : {t + LONG_MAX, t - LONG_MIN}) {
        EXPECT_EQ(text(last).substr(0, 19), "9999-12-31 23:59:59");
    }
}

TEST_F(CTimeTest, ComparisonsGoFromYearToMillisecond) {
    const CTime base(2024, 6, 15, 12, 30, 30, 500);
    for (const long step : {1L, 1000L, 60000L, 3600000L, 86400000L, 2678400000L, 31622400000L}) {
        const CTime later = base + step;
        EXPECT_TRUE(base < later && base <= later && base != later && !(later <= base)) << step;
    }
    CTime same = base;
    same.isDst = 1;
    same.wday = 0;
    EXPECT_TRUE(base == same && base <= same && base >= same && !(base > same));
}

TEST_F(CTimeTest, WeekdaysOfAMonth) {
    std::vector<int> days{99};
    EXPECT_TRUE(getWeekDays(2024, 2, 4, days));  // Thursdays of a February that has five
    EXPECT_EQ(days, (std::vector<int>{1, 8, 15, 22, 29}));
    EXPECT_TRUE(getWeekDays(2023, 2, 0, days));
    EXPECT_EQ(days, (std::vector<int>{5, 12, 19, 26}));
    for (const auto& [month, wday] : {std::pair(0, 1), {13, 1}, {1, -1}, {1, 7}}) {
        EXPECT_FALSE(getWeekDays(2024, month, wday, days));
        EXPECT_TRUE(days.empty());
    }
    EXPECT_EQ(dateToWeekday(2000, 13, 1), -1);
}

SystemTime rule(int month, int week, int wday, int hour, int day = 0) {
    return {0, month, day, wday, hour, 0, 0, 0, 0, week};
}

TEST_F(CTimeTest, DaylightSavingBeginsAndEndsByItsRules) {
    const SystemTime octobersLast = rule(10, -1, 0, 3);
    const uint64_t octoberEnd = utcMs(2024, 10, 27, 2);  // 3:00 in summer
    const struct {
        const char* why;
        long offset;
        SystemTime start;
        SystemTime end;
        uint64_t first;  // moment of summer
        uint64_t after;  // it
    } cases[] = {
        {"Europe", -3600, rule(3, -1, 0, 2), octobersLast, utcMs(2024, 3, 31, 1),
         utcMs(2024, 10, 27, 1)},
        {"over the new year", -36000, rule(10, 1, 0, 2), rule(4, 1, 0, 3), utcMs(2024, 10, 5, 16),
         utcMs(2025, 4, 5, 16)},
        {"a fifth Sunday that there is", 0, rule(3, 5, 0, 0), octobersLast, utcMs(2024, 3, 31, 0),
         octoberEnd},
        {"a fifth Monday that there is not", 0, rule(3, 5, 1, 0), octobersLast,
         utcMs(2024, 3, 25, 0), octoberEnd},
        {"the second Friday", 0, rule(3, 2, 5, 0), octobersLast, utcMs(2024, 3, 8, 0), octoberEnd},
        {"a date", 0, rule(3, 0, 0, 0, 17), octobersLast, utcMs(2024, 3, 17, 0), octoberEnd},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        CTime::setTimezoneOffset(c.offset);
        CTime::setDst(true, c.start, c.end, 3600);
        EXPECT_EQ(CTime(c.first - 1000).isDst, 0);
        EXPECT_EQ(CTime(c.first).isDst, 1);
        EXPECT_EQ(CTime(c.after - 1000).isDst, 1);
        EXPECT_EQ(CTime(c.after).isDst, 0);
    }
    CTime::setDst(true, rule(13, 1, 9, 0), rule(0, -1, 0, 0), INT_MIN);  // nonsense does no harm
    CTime(utcMs(2024, 1, 1, 0)).makeTime();
}

/// There and back, but for the last hours of summer and of the year, which the rule answers for the
/// other side; so it is meant.
TEST_F(CTimeTest, DaylightSavingThereAndBack) {
    CTime::setTimezoneOffset(-3600);
    CTime::setDst(true, rule(3, -1, 0, 2), rule(10, -1, 0, 3), 3600);
    EXPECT_EQ(text(CTime(utcMs(2024, 7, 1, 22))), "2024-07-02 00:00:00.000 w2 k1 d1");
    const uint64_t autumn = utcMs(2024, 10, 27, 1);
    const uint64_t newYear = utcMs(2024, 12, 31, 23);
    for (uint64_t utc = utcMs(2024, 1, 1, 0); utc < newYear; utc += kHourMs / 2) {
        const bool lastHour = (utc >= autumn - kHourMs && utc < autumn) || utc >= newYear - kHourMs;
        ASSERT_EQ(CTime(utc).makeTime() == utc, !lastHour) << text(CTime(utc));
    }
}

TEST_F(CTimeTest, ClocksAgreeWithEachOther) {
    const uint64_t ms = CTime::getCurrentMilliSecond();
    const uint64_t us = CTime::getCurrentMicroSecond();
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_LE(ms, us / 1000);
    EXPECT_LE(us / 1000000, static_cast<uint64_t>(now.tv_sec));
    EXPECT_LT(static_cast<uint64_t>(now.tv_sec) - ms / 1000, 60u);

    const uint64_t before = CTime::getCurrentUTCtime();
    EXPECT_LE(before, CTime::getCurrentTime().makeTime());
    EXPECT_LE(before / 1000, static_cast<uint64_t>(time(nullptr)) + 1);
}

TEST_F(CTimeTest, ThePrintReadingIsStoredUntilItIsOldOrTheClockWasSet) {
    // Retried: a refresh may fall between the two readings.
    EXPECT_TRUE(OrbelTest::waitFor([] {
        const CTime first = CTime::getCurTimeForPrint();
        usleep(3000);
        return CTime::getCurTimeForPrint() == first;
    }));
    const CTime stored = CTime::getCurTimeForPrint();
    usleep(2000);
    PrintClock::instance().clockChanged();
    const CTime fresh = CTime::getCurTimeForPrint();
    EXPECT_NE(fresh, stored);
    EXPECT_TRUE(OrbelTest::waitFor([&] { return CTime::getCurTimeForPrint() != fresh; }));
    EXPECT_GE(CTime::getCurTimeForPrint() - fresh, 390) << "0.4 seconds, less a step of the clock";
}

/// A store takes nanoseconds: it is the thread sanitizer that would see a reader in the middle.
TEST_F(CTimeTest, ThePrintReadingIsReadWhileItIsStored) {
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            const CTime t = CTime::getCurTimeForPrint();
            ASSERT_EQ(t.wday, dateToWeekday(t.year, t.month, t.day)) << text(t);
        }
    });
    for (int i = 0; i < 20000; ++i) {
        CTime::setTimezoneOffset(i % 2 == 0 ? -400 * 86400 : 0);  // another date
        PrintClock::instance().clockChanged();
        CTime::getCurTimeForPrint();
    }
    stop = true;
    reader.join();
}

}  // namespace
