#pragma once

#include <string>

#include "Vantel/Export.h"

namespace Json {
class Value;
}

namespace Vantel::Utils {

///@{
/// Parses a JSON document in the parser's strict mode: an object or an array, no comments. What
/// follows its end is not looked at. False, with `value` null, for null, a `size` in bytes below 1,
/// a text that is no such document, and one nested more than 1000 levels deep or too deep for the
/// stack of the calling thread: the parser takes 768 bytes a level and 2 KiB. 8 levels always fit.
///
/// The value takes stack as well where it is copied (about 120 bytes a level), printed (300) and
/// destroyed (80): a thread with a small stack must not do that with a deep one it got elsewhere.
ORBEL_API bool stringToJson(const char* text, int size, Json::Value& value);
ORBEL_API bool stringToJson(const std::string& text, Json::Value& value);
///@}

///@{
/// As stringToJson(), and true only for an object or an array.
ORBEL_API bool stringToJsonGroup(const char* text, int size, Json::Value& value);
ORBEL_API bool stringToJsonGroup(const std::string& text, Json::Value& value);
///@}

/// Indented, or in one line; either ends in a newline. The name of a member is cut at a zero byte.
ORBEL_API std::string jsonToString(const Json::Value& value, bool styled);

/// `base` with the members of `overlay` put over it: objects merge member by member, everything
/// else, arrays too, is replaced. If either is no object the result is `base`.
ORBEL_API Json::Value jsonMerge(const Json::Value& base, const Json::Value& overlay);

}  // namespace Vantel::Utils
