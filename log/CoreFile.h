#pragma once

#include "Vantel/Log/ILogClient.h"

namespace Vantel::Log {

/// Has a debugger attach to this process and write its memory, all mappings included, to
/// "<logPath>/coredump/<moduleName>.core"; the directory must exist, and the debugger must be
/// allowed to attach to its parent. Says in one line how that ended. False, without a line, if
/// `config` does not have `coredump` true, there is no debugger, this process is being debugged
/// (its parent is the debugger), or no process can be made.
bool makeCoreFile(ILogClient& client, const Json::Value& config);

}  // namespace Vantel::Log
