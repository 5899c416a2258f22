#pragma once

#include "Vantel/Export.h"

namespace Json {
class Value;
}

namespace Vantel::Orbel {

/// Configures the library; without it everything works with its defaults. Ignores SIGPIPE for the
/// whole process. Keys of `config`, all of which may be missing; a value that is no object has
/// none:
///     "timerPoolSize"  integer: see CTimerManager::limitIdlePooled()
///     "fileIOBuffer"   integer: bytes of the stream buffer of files that are opened from now on,
///                      1024 to 32768, 16384 by default; other numbers change nothing
///     "fileCache"      object: see IFileCache. What its "path" holds is deleted.
///     "realtime"       object: with "enable" true all memory of the process, present and future,
///                      is locked, for which it needs the privilege or a limit that is high enough
///
/// True. False, with a line on standard error, if the memory cannot be locked; SIGPIPE and the
/// other keys are left alone then. The program ends (a line on standard error and an assertion),
/// before anything is done, for a "timerPoolSize", "fileIOBuffer" or "realtime" of another type.
///
/// Threads: none beside it; it belongs to the start of the process.
ORBEL_API bool initialize(const Json::Value& config);

}  // namespace Vantel::Orbel
