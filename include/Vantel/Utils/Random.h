#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Vantel/Export.h"

/// @file
/// None of these is fit for secrets but createRandomUUID() and generateRandom().

namespace Vantel::Utils {

/// A random identifier of RFC 4122 in lower case, 36 characters.
ORBEL_API std::string createRandomUUID();

/// The first `size` of the 32 hexadecimal digits of such an identifier.
ORBEL_API std::string createRandomGUID(int size);

/// Fills `out` with `size` random bytes, seeded by the clock: no two calls of a process see the
/// same time, and process and thread count too. Threads: any.
ORBEL_API void generateUUID(uint8_t* out, size_t size);

/// A number below `max`, which must not be 0: that is a division by zero. Throws
/// std::system_error if the system has no random bytes.
ORBEL_API uint32_t generateRandom(uint32_t max);

/// `base` plus a number below `range`. Starts the C library's generator over from the time in
/// seconds: calls within one second return the same. Threads: one at a time.
ORBEL_API int createRandNum(int range, int base);

/// `length` digits and letters. Threads: any; each has a generator of its own.
ORBEL_API std::string getRandString(int length);

}  // namespace Vantel::Utils
