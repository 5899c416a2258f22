#pragma once

#include "Vantel/Orbel/IFileSystem.h"

namespace Vantel::Orbel {

/// The table of operations for `path`, never null: that of the first mount whose prefix it begins
/// with, by place and not by length, else the default one, also for null.
IFileSystem* _findOpts(const char* path);

}  // namespace Vantel::Orbel
