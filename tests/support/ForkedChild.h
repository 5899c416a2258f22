#pragma once

#include <unistd.h>

namespace OrbelTest {

inline const pid_t pidAtStart = getpid();

}  // namespace OrbelTest

/// For helpers whose forked child ends by exit(): the leak checker that runs there takes the
/// allocator's locks, and waits for ever for one that a thread of the parent held at the fork.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer looks for this name.
extern "C" [[gnu::used, gnu::visibility("default")]] inline int __lsan_is_turned_off() {
    return getpid() != OrbelTest::pidAtStart ? 1 : 0;
}
