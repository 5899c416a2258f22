#pragma once

#include <string>

#include "Vantel/Export.h"

namespace Vantel::Utils {

/// Base64 of RFC 4648, section 4: standard alphabet, "=" padding, no line breaks. Empty for null.
ORBEL_API std::string base64Encode(const unsigned char* data, unsigned int size);

/// Decodes up to the first "="; carriage returns and line feeds are skipped. Any other byte outside
/// the alphabet makes the whole result empty.
ORBEL_API std::string base64Decode(const std::string& text);

/// Room in bytes for the encoding of `size` bytes with a terminator.
ORBEL_API int base64EncodeLength(int size);

/// Room in bytes for what the leading characters of the alphabet in `text` decode to, with a
/// terminator.
ORBEL_API int base64DecodeLength(const std::string& text);

}  // namespace Vantel::Utils
