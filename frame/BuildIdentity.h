#pragma once

#include "Vantel/Orbel/BuildIdentity.h"

namespace Vantel::Orbel {

/// "<seven digits of the commit>(YYYY-MM-DD)": the last change of the public headers.
const char* headerCommit();

}  // namespace Vantel::Orbel
