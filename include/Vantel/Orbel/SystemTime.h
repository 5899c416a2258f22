#pragma once

#include <cstdint>
#include <vector>

#include "Vantel/Export.h"

/// @file
/// Offsets from UTC and daylight saving time are settings of the process (see CTime); they are set
/// at its start. All functions here work in the Gregorian calendar and may be called from any
/// thread. Records need not be normalised: fields outside their ranges count as normalizeTime()
/// would leave them.

namespace Vantel::Orbel {

/// A calendar date and time.
struct ORBEL_API SystemTime {
    int year;         ///< 1970 to 9999
    int month;        ///< 1 to 12
    int day;          ///< 1 to 31
    int wday;         ///< day of the week, 0 is Sunday
    int hour;         ///< 0 to 23
    int minute;       ///< 0 to 59
    int second;       ///< 0 to 59
    int millisecond;  ///< 0 to 999
    int isDst;        ///< 1 if daylight saving time was applied
    int week;         ///< week of the month, (day + 6) / 7; in a DST rule -1 is the last one
};

/// Conversions no longer apply the offset from UTC.
ORBEL_API void timezoneDisable();

/// Sets the offset in seconds west of UTC, the sign of the C library's `timezone`. An offset of
/// exactly -1 cannot be set: it means "not known yet", and the C library's is taken at next use.
ORBEL_API void setUTCTimezoneOffset(long seconds);

/// Day of the week, 0 for Sunday; -1 for a month outside 1 to 12.
ORBEL_API int dateToWeekday(int year, int month, int day);

/// Brings each field into its range, without carrying into the next one, and sets `wday` and
/// `week`. An hour above 23 becomes 23:59:59. A day behind the end of the month becomes the last
/// day, in February the 28th: only exactly 29 is kept in a leap year.
ORBEL_API void normalizeTime(SystemTime& time);

/// Breaks up UTC seconds since 1970 into local fields (offset applied, no DST); milliseconds and
/// `isDst` become 0. What lies outside 1970 to 9999 becomes the first or last second of it.
ORBEL_API void utcToTime(uint64_t seconds, SystemTime& time);

/// The way back: UTC seconds since 1970 of local fields (offset applied, no DST), at least 0.
ORBEL_API uint64_t timeToUtc(const SystemTime& time);

/// Breaks up milliseconds since 1970 as they are: no offset, no DST; `isDst` becomes 0.
ORBEL_API void milliSecondsToTime(uint64_t milliseconds, SystemTime& time);

/// Milliseconds since 1970 of the fields as they are: no offset, no DST.
ORBEL_API uint64_t timeToMilliSeconds(const SystemTime& time);

/// Normalises `time` and returns its seconds since 1970 as they are: no offset, no DST.
ORBEL_API uint64_t gmtTimeToUtc(SystemTime& time);

/// Puts the days of the month that fall on `wday` (0 is Sunday) into `days`, in order. False, with
/// `days` empty, for a month or weekday out of range.
ORBEL_API bool getWeekDays(int year, int month, int wday, std::vector<int>& days);

}  // namespace Vantel::Orbel
