#pragma once

#include <string>
#include <vector>

#include "Vantel/Export.h"

namespace Vantel::Utils {

/// The capital hexadecimal digit of `v`; above 15 there is no check, and no digit.
ORBEL_API char charToHex(unsigned char v);

/// An ASCII letter or digit.
ORBEL_API bool isAlphaNumber(unsigned char c);

/// Neither null nor empty.
ORBEL_API bool stringValid(const char* s);

/// Replaces every `from` in `text`, left to right, what was put in not looked at again. False for
/// an empty `text`. An empty `from` is found nowhere.
ORBEL_API bool replaceAllString(std::string& text, const std::string& from, const std::string& to);

/// Doubles every single quote, as inside an SQL string; adds none around it.
ORBEL_API std::string quoteStr(const std::string& text);

///@{
/// Remove what leads, what trails, or both, of the characters in `chars`; in place, and returned.
ORBEL_API std::string& leftTrim(std::string& text, const std::string& chars);
ORBEL_API std::string& rightTrim(std::string& text, const std::string& chars);
ORBEL_API std::string& trim(std::string& text, const std::string& chars);
///@}

/// Two capital hexadecimal digits per byte. Empty for null or a size below 1.
ORBEL_API std::string binToHex(const char* data, int size);

/// The bytes of `size` hexadecimal digits of either case; a last single digit is the high half of
/// its byte. Empty for null, a size below 1, or any other character.
ORBEL_API std::string hexToBin(const char* text, int size);

/// The fields between delimiters, empty ones included; a trailing delimiter adds none.
ORBEL_API std::vector<std::string> splitString(const std::string& text, char delimiter);

/// The fields between delimiters without the empty ones. Where a delimiter follows another at once
/// the search goes on at the second character of it, not behind it: with delimiters longer than
/// one character the next field then begins inside it.
ORBEL_API std::vector<std::string> splitString(const std::string& text,
                                               const std::string& delimiter);

/// A time of day like "7:05:00" or "23:59:59".
ORBEL_API bool checkTimeFormat(const std::string& text);

}  // namespace Vantel::Utils
