#pragma once

#include <cerrno>

namespace Vantel::Orbel {

/// Repeats a system call as long as it returns -1 with EINTR; returns its last result.
template <class Call>
auto retryOnEintr(Call&& call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

}  // namespace Vantel::Orbel
