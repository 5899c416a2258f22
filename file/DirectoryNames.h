#pragma once

#include <string>
#include <vector>

namespace Vantel::Orbel {

/// Appends the names of all entries but "." and "..". `openFlags` are added to those of open(2).
/// The directory is closed again, so it may be changed while the names are gone through. False
/// with errno if it cannot be opened or read.
bool directoryNames(const char* path, int openFlags, std::vector<std::string>& names);

}  // namespace Vantel::Orbel
