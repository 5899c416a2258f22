#pragma once

#include <string>
#include <vector>

#include "Vantel/Export.h"

namespace Vantel::Utils {

/// Rounds half a unit down: 1.234 to two digits is 1.22, 1.236 is 1.23. 0 for negative `digits`.
/// The value times 10^digits must fit into 32 bits.
ORBEL_API float round(float value, int digits);

/// `value` with `digits` decimals, cut to 63 characters.
ORBEL_API std::string toPrecisionString(float value, int digits);

///@{
/// A JSON array of the values, without blanks or line ends. Always true.
ORBEL_API bool floatVecToJsonString(const std::vector<float>& values, std::string& json);
ORBEL_API std::string floatVecToJsonString(const std::vector<float>& values);
///@}

/// Base64 of the values' bit patterns as decimal numbers, one blank between two: exact, unlike
/// decimal fractions. No values give an empty text. Always true.
ORBEL_API bool float2Base64String(const std::vector<float>& values, std::string& text);

/// The way back; appends to `values`. False for a text that does not decode and at the first
/// number that is none, where the values before it have been appended.
ORBEL_API bool base64String2Float(const std::string& text, std::vector<float>& values);

}  // namespace Vantel::Utils
