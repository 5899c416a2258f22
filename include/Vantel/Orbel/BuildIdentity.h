#pragma once

#include "Vantel/Export.h"

/// @file
/// All texts live as long as the library. Any thread may ask.

namespace Vantel::Orbel {

/// Always "..": the three version fields, joined. This library carries no version number in its
/// binary; getBuildInfo() tells one build from another.
ORBEL_API const char* getVersion();
/// Always empty.
ORBEL_API const char* getMajorVersion();
/// Always empty.
ORBEL_API const char* getMinorVersion();
/// Always empty.
ORBEL_API const char* getPatchVersion();

/// "Release Build: YYYY-MM-DD HH:MM:SS Repo: ***<branch>(<first eight digits of the commit>)".
ORBEL_API const char* getBuildInfo();

/// The processor that the library was built for, like "x86_64".
ORBEL_API const char* getCrossPlatform();

}  // namespace Vantel::Orbel
