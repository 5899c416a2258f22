#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/CTimeRecord.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/LogCapture.h"

using namespace Vantel::Orbel;

namespace {

constexpr const char* kStandard = "yyyy-MM-dd HH:mm:ss";

std::string formatted(const CTime& time, const char* format, int flags) {
    char buffer[160];
    time.format(buffer, format, flags);
    return buffer;
}

class CTimeTextTest : public testing::Test {
protected:
    ~CTimeTextTest() override { CTime::setFormatString(kStandard); }
};

TEST_F(CTimeTextTest, FormatFollowsTheDefaultFormatUnlessToldOtherwise) {
    const struct {
        const char* standard;
        const char* format;
        int flags;
        int hour;
        const char* text;
    } cases[] = {
        {kStandard, nullptr, 0, 7, "2024-05-06 07:08:09"},
        {kStandard, "yy/M.d H:m:s", 0, 7, "24-5-6 7:8:9"},
        {kStandard, "yy/M.d H:m:s", CTime::kKeepSeparators, 17, "24/5.6 17:8:9"},
        {kStandard, "HH mm", 0, 7, "07 08"},
        {kStandard, "HH:mm tt|", 0, 13, "13:08|"},
        {kStandard, "hh:mm tt", CTime::kOwnTwelveHour, 13, "01:08 PM"},
        {kStandard, "h tt", CTime::kOwnTwelveHour, 0, "12 AM"},
        {kStandard, "h tt", CTime::kOwnTwelveHour, 12, "12 PM"},
        {kStandard, "dd/MM/yyyy", CTime::kOwnDateOrder, 7, "06-05-2024"},
        // Without the flag the order is the default's, and only the widths are the format's.
        {kStandard, "dd/MM/yyyy", 0, 7, "24-05-06"},
        {"dd.MM.yyyy hh", "yyyy-M-dddd | hht", 0, 12, "06.5.2024 | 12PM"},
        {"dd.MM.yyyy hh", "yyyy-M-d H", CTime::kOwnTwelveHour | CTime::kOwnDateOrder, 23,
         "2024.5.6 23"},
        {"MM/dd/yyyy", "yy-MM-d", 0, 7, "05/06/24"},
    };
    for (const auto& c : cases) {
        CTime::setFormatString(c.standard);
        EXPECT_EQ(formatted({2024, 5, 6, c.hour, 8, 9, 0}, c.format, c.flags), c.text)
            << c.standard << " | " << c.format << " | " << c.flags;
    }
    EXPECT_STREQ(CTime::getSeparator(), "/");
    EXPECT_EQ(CTime::getDateFormat(), 1);
    EXPECT_FALSE(CTime::get12Hour());
}

TEST_F(CTimeTextTest, ParseTakesSixNumbersInTheOrderOfItsFormat) {
    const struct {
        const char* text;
        const char* format;
        const char* result;
    } cases[] = {
        {"2024-05-06 07:08:09", kStandard, "2024-05-06 07:08:09"},
        {"on 6.5.2024, 7h8m9s and 10", "dd.MM.yyyy HH", "2024-05-06 07:08:09"},
        {"5/6/2024 12:8:9 AM", "M/d/y h", "2024-05-06 00:08:09"},
        {"5/6/2024 12:8:9 PM", "M/d/y h", "2024-05-06 12:08:09"},
        {"5/6/2024 1:8:9PM", "M/d/y h", "2024-05-06 13:08:09"},
        {"99999999999999999999-2-31 1:2:3", nullptr, "9999-02-28 01:02:03"},
        {"2024-05-06 07:08", kStandard, nullptr},
        {"5/6/2024 13:8:9 AM", "M/d/y h", nullptr},
        {"5/6/2024 7:8:9", "M/d/y h", nullptr},
        {nullptr, kStandard, nullptr},
    };
    for (const auto& c : cases) {
        CTime time(1970, 2, 3, 4, 5, 6, 7);
        EXPECT_EQ(time.parse(c.text, c.format, 0), c.result != nullptr) << c.text;
        EXPECT_EQ(formatted(time, kStandard, 0), c.result ? c.result : "0000-00-00 00:00:00");
        EXPECT_EQ(time.millisecond, c.result ? 7 : 0);
    }
}

TEST_F(CTimeTextTest, AFormatWithoutKnownOrderOrSeparatorEndsTheProgram) {
    for (const char* bad : {"yyyy MM dd", "yyyy-dd-MM", static_cast<const char*>(nullptr)}) {
        EXPECT_DEATH(CTime::setFormatString(bad), "Assertion");
    }
    EXPECT_DEATH(formatted({}, "HH:mm", CTime::kOwnDateOrder), "Assertion");
    EXPECT_DEATH(CTime::minTime.format(nullptr, kStandard, 0), "Assertion");
}

TEST(ClockSetterTest, AHookTakesTheCall) {
    struct Hook {
        void set(const CTime& time, int ms) {
            got = time;
            toleranceMs = ms;
        }
        CTime got;
        int toleranceMs = 0;
    } hook;
    const auto old = CTime::attachSetCurrentTimeHook({&hook, &Hook::set});
    EXPECT_TRUE(CTime::setCurrentTime({2024, 5, 6, 7, 8, 9, 10}, 11));
    EXPECT_TRUE(hook.toleranceMs == 11 && hook.got == CTime(2024, 5, 6, 7, 8, 9, 10));
    EXPECT_EQ(CTime::attachSetCurrentTimeHook(old), decltype(old)(&hook, &Hook::set));
}

/// In processes that cannot touch the clock, see the helper.
TEST(ClockSetterTest, TheDefaultSetsTheClockThenTheHardwareAndTellsWhoAsked) {
    const std::pair<const char*, const char*> cases[] = {
        {"tolerated", ""},
        {"refused", "trace "},
        {"alone", "trace 1714979289 info rtc"},
        {"clamped", "trace 253370764800 info rtc"},
        {"broken", "trace 1714979289 warn error rtc"},
        {"told", "trace 1714979289 warn told told rtc"},
    };
    for (const auto& [role, result] : cases) {
        OrbelTest::HelperProcess helper("ClockSetterHelper", {role});
        std::string line;
        EXPECT_TRUE(helper.readLine(line)) << role;
        EXPECT_EQ(line, result) << role;
    }
}

TEST(CTimeRecordTest, PrintsEachStretchAndKeepsMoreThanItsCapacity) {
    testing::internal::CaptureStdout();
    CTimeRecord record("load", 1);
    record.sample("dropped");
    record.reset();
    record.sample("read");
    record.sample("parse");
    record.stat(4000000000);  // too short to be told
    record.stat(0);
    std::fflush(stdout);
    const std::string lines = testing::internal::GetCapturedStdout();
    EXPECT_EQ(lines.find("load-Per-read-parse : "), 0u) << lines;
    EXPECT_NE(lines.find(" us\nload-Per-parse-(null) : "), std::string::npos) << lines;
}

}  // namespace
