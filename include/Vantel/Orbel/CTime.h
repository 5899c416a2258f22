#pragma once

#include <cstdint>

#include "Vantel/Export.h"
#include "Vantel/Orbel/SystemTime.h"

namespace Vantel::Orbel {

/// A calendar date and time with conversions and time zone rules of its own, and the clock
/// readings of the library.
///
/// Threads: one object belongs to one thread at a time. The clock readings may be called from any
/// thread. The settings (setDst, disableTimezone) belong to the start of the process; the offset
/// may be set at any time.
class ORBEL_API CTime : public SystemTime {
public:
    static const CTime minTime;  ///< 1970-01-01 00:00:00
    static const CTime maxTime;  ///< 9999-01-01 00:00:00

    /// No time yet.
    constexpr CTime() : SystemTime() {}
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

    /// Milliseconds since 1970 in UTC of this local time. With DST not the inverse of breakTime()
    /// in the last hour of summer and in the last hour of the year.
    uint64_t makeTime() const;
    /// Becomes the local time of `ms` milliseconds since 1970 in UTC.
    void breakTime(uint64_t ms);

    // Arithmetic goes over the fields as they are: no offset, no DST, so t + d - t is always d.
    // What would lie outside 1970 to 9999 stops there. `isDst` is kept.
    CTime operator+(long ms) const;
    CTime operator-(long ms) const;
    CTime& operator+=(long ms);
    CTime& operator-=(long ms);
    /// The difference in milliseconds.
    long operator-(const CTime& other) const;

    // Ordered by date and time of day; `wday`, `week` and `isDst` do not count.
    bool operator==(const CTime& other) const { return compare(other) == 0; }
    bool operator!=(const CTime& other) const { return compare(other) != 0; }
    bool operator<(const CTime& other) const { return compare(other) < 0; }
    bool operator<=(const CTime& other) const { return compare(other) <= 0; }
    bool operator>(const CTime& other) const { return compare(other) > 0; }
    bool operator>=(const CTime& other) const { return compare(other) >= 0; }

private:
    int compare(const CTime& other) const;
};

}  // namespace Vantel::Orbel
