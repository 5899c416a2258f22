#pragma once

#include <string_view>

namespace Vantel::Utils {

/// Whether `text` is well-formed UTF-8 after RFC 3629: no overlong forms, no surrogates, nothing
/// above U+10FFFF.
bool isUtf8(std::string_view text);

}  // namespace Vantel::Utils
