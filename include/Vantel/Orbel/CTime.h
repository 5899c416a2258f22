#pragma once

#include <cstdint>

#include "Vantel/Export.h"
#include "Vantel/Orbel/SystemTime.h"
#include "Vantel/Orbel/TDelegate.h"

namespace Vantel::Orbel {

/// A calendar date and time with conversions and time zone rules of its own, and the clock
/// readings of the library.
///
/// Threads: one object belongs to one thread at a time. The clock readings may be called from any
/// thread. The settings (setDst, disableTimezone, setFormatString) belong to the start of the
/// process; the offset may be set at any time.
class ORBEL_API CTime : public SystemTime {
public:
    static const CTime minTime;  ///< 1970-01-01 00:00:00
    static const CTime maxTime;  ///< 9999-01-01 00:00:00

    /// No time yet.
    constexpr CTime() : SystemTime() {}
    /// The fields as they are, not normalised.
    constexpr explicit CTime(const SystemTime& time) : SystemTime(time) {}
    /// Normalises its arguments, see normalizeTime().
    CTime(int year, int month, int day, int hour, int minute, int second, int millisecond);
    /// Local time of `ms` milliseconds since 1970 in UTC.
    CTime(uint64_t ms);  // NOLINT(google-explicit-constructor)

    /// Milliseconds since boot (CLOCK_MONOTONIC); 0, with an error line, if the clock fails.
    static uint64_t getCurrentMilliSecond();
    /// Microseconds since boot (CLOCK_MONOTONIC); 0, with an error line, if the clock fails.
    static uint64_t getCurrentMicroSecond();
    /// Milliseconds since 1970 in UTC.
    static uint64_t getCurrentUTCtime();
    /// The local time now.
    static CTime getCurrentTime();
    /// The local time, up to 0.4 seconds old: cheap, for the stamps of log lines. A change of the
    /// clock through this library is seen at once.
    static CTime getCurTimeForPrint();

    /// Switches daylight saving time: local time is `offsetSeconds` ahead from `start` to `end` of
    /// each year. Of the rules month, day, hour, minute and second count; with a `week` other than
    /// 0 the day is the `week`-th `wday` of the month, or the last for -1 or a week it hasn't.
    static void setDst(bool enable, const SystemTime& start, const SystemTime& end,
                       int offsetSeconds);
    /// See timezoneDisable().
    static void disableTimezone();
    /// See setUTCTimezoneOffset().
    static void setTimezoneOffset(long seconds);
    /// Normalises `time` and returns its milliseconds since 1970 as they are: no offset, no DST.
    static uint64_t gmtToUtcTimestamp(CTime& time);

    /// Sets the clock of the machine to the local time `time`; true. With a `toleranceMs` above 0 a
    /// clock that is at most so many milliseconds off, either way, stays as it is. By default
    /// `time` is forced into minTime to maxTime, the hardware clock is set too ("hwclock -w", where
    /// a failure is logged), and then what attachModifyProc() took is called, in this thread.
    /// Nothing happens, and nothing is logged, where the process may not set the clock.
    static bool setCurrentTime(const CTime& time, int toleranceMs);
    /// `proc` does what setCurrentTime() is for from now on, with the same arguments; an empty one
    /// brings the default back. The one it replaces.
    static TDelegate<void, const CTime&, int> attachSetCurrentTimeHook(
        TDelegate<void, const CTime&, int> proc);
    /// `proc` is called with the new local time whenever the default of setCurrentTime() has set
    /// the clock; its result doesn't matter. It may attach others. There is no way to detach it.
    static void attachModifyProc(TDelegate<bool, SystemTime> proc);

    /// The default format of the process, "yyyy-MM-dd HH:mm:ss" at first; for its letters see
    /// format(). Its first "y", "M" and "d" must stand in one of the orders of getDateFormat(), and
    /// one of ".", "/", "-" must occur: the program ends (fatal line and assertion) otherwise.
    static void setFormatString(const char* format);
    /// 0 year, month, day; 1 month, day, year; 2 day, month, year.
    static int getDateFormat();
    /// The default format has an "h".
    static bool get12Hour();
    /// Of the default format: ".", else "/", else "-".
    static const char* getSeparator();

    ///@{
    /// What format() takes from its own format and not from the default one.
    static constexpr int kKeepSeparators = 1;
    static constexpr int kOwnDateOrder = 2;
    static constexpr int kOwnTwelveHour = 4;
    ///@}

    /// Writes the time into `buffer`, with a zero at the end; its length is the caller's business.
    /// `flags` is a sum of the constants above; a null `format` is the default one. Runs of these
    /// letters are replaced, every other character is copied:
    ///     y, M, d     the fields of the date, in the order of the date, whichever letter stands
    ///                 there. A year has four digits for a run of 3 or more, else two; a month or
    ///                 day has two for a run of 2 or more.
    ///     H, h, m, s  hour, minute, second; two digits for a run of 2 or more
    ///     t           "AM" or "PM" in twelve-hour form, else nothing, and blanks before it go
    ///     -, ., /     the separator
    /// The program ends (fatal line and assertion) for a null `buffer`, and, with kOwnDateOrder,
    /// for a format whose y, M and d are in none of the three orders.
    void format(char* buffer, const char* format, int flags) const;

    /// Becomes the time that `text` tells: six groups of digits, for the date in the order of
    /// `format` (a null one is the default) and for hour, minute and second. A format with an "h"
    /// wants an hour of at most 12 and "AM" or "PM" in the text. The milliseconds stay; `flags` has
    /// no effect. False, with an error line, and all fields zero, if that is not so. The program
    /// ends for a format whose y, M and d are in none of the three orders.
    bool parse(const char* text, const char* format, int flags);

    /// Milliseconds since 1970 in UTC of this local time. With DST not the inverse of breakTime()
    /// in the last hour of summer and in the last hour of the year.
    uint64_t makeTime() const;
    /// Becomes the local time of `ms` milliseconds since 1970 in UTC.
    void breakTime(uint64_t ms);

    ///@{
    /// Arithmetic goes over the fields as they are: no offset, no DST, so t + d - t is always d.
    /// What would lie outside 1970 to 9999 stops there. `isDst` is kept.
    CTime operator+(long ms) const;
    CTime operator-(long ms) const;
    CTime& operator+=(long ms);
    CTime& operator-=(long ms);
    ///@}
    /// The difference in milliseconds, over the fields as they are.
    long operator-(const CTime& other) const;

    ///@{
    /// Ordered by date and time of day; `wday`, `week` and `isDst` do not count.
    bool operator==(const CTime& other) const { return compare(other) == 0; }
    bool operator!=(const CTime& other) const { return compare(other) != 0; }
    bool operator<(const CTime& other) const { return compare(other) < 0; }
    bool operator<=(const CTime& other) const { return compare(other) <= 0; }
    bool operator>(const CTime& other) const { return compare(other) > 0; }
    bool operator>=(const CTime& other) const { return compare(other) >= 0; }
    ///@}

private:
    int compare(const CTime& other) const;
};

}  // namespace Vantel::Orbel
