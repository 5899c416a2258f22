#pragma once

#include <cerrno>

namespace Vantel::Orbel {

/// Whether a refused unlock is one to stop at. It asks errno, which the pthread functions do not
/// set, rather than their result. Meant so: see the contract of leave().
inline bool isKnownLeaveError() {
    return errno == EPERM || errno == EINTR || errno == EINVAL;
}

}  // namespace Vantel::Orbel
