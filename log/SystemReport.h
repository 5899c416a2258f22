#pragma once

#include "Vantel/Log/ILogClient.h"

namespace Vantel::Log {

/// The client's levels that a crash report uses.
constexpr int kErrorLevel = 5;
constexpr int kFatalLevel = 6;

/// Prints memory, threads, uptime, mappings, status and descriptors, each as a command of the
/// system shows it. A command that fails says so in a line of its own.
void printSystemInfo(ILogClient& client);

}  // namespace Vantel::Log
