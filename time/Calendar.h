#pragma once

#include <cstdint>

#include "Vantel/Orbel/SystemTime.h"

namespace Vantel::Orbel {

constexpr int64_t kSecondsPerDay = 86400;
/// 9999-12-31 23:59:59: conversions stop here.
constexpr int64_t kLastSecond = 253402300799;

/// `value` forced into 0 to kLastSecond.
int64_t clampSecond(int64_t value);

/// The `number`-th day (from 1) of the month that falls on `wday`, or the last one if `number` is
/// negative or the month has fewer. 0 for a month or weekday out of range.
int dayOfNthWeekday(int year, int month, int wday, int number);

}  // namespace Vantel::Orbel
