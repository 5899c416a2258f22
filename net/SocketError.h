#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstring>

#include "frame/base/Log.h"

namespace Vantel::Orbel {

/// The one line for a failed socket call: "<what> failed: <error text>". Keeps errno.
inline void logSocketError(const char* what) {
    const int error = errno;
    ORBEL_LOG_ERROR("%s failed: %s\n", what, std::strerror(error));
    errno = error;
}

/// Whether a system call that answers -1 on failure succeeded; logs if not. Keeps errno.
inline bool succeeded(int result, const char* what) {
    if (result < 0) {
        logSocketError(what);
    }
    return result >= 0;
}

/// Sets errno and answers -1 or false, for refusals before any system call.
inline ssize_t fail(int error) {
    errno = error;
    return -1;
}

inline bool refuse(int error) {
    errno = error;
    return false;
}

}  // namespace Vantel::Orbel
