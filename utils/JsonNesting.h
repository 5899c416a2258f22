#pragma once

namespace Vantel::Utils {

/// Whether a JSON text is nested so little that the parser, which calls itself at each level, gets
/// through it on what is left of the calling thread's stack: 8 levels always, at most 1000. Behind
/// the first fault of the text the answer may be wrong, but there the parser descends no further.
bool nestingFits(const char* begin, const char* end);

}  // namespace Vantel::Utils
