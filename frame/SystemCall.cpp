#include <sys/wait.h>
#include <unistd.h>

#include "Vantel/Orbel/ProcessServices.h"
#include "frame/base/Log.h"
#include "frame/base/RetryOnEintr.h"

namespace Vantel::Orbel {

namespace {

/// Runs in the child of a vfork, on the memory of the parent, whose other threads go on: system
/// calls only, and nothing is written but locals.
[[noreturn]] void becomeShell(const char* command, long maxDescriptors) {
    constexpr int kFirst = 3;
    if (close_range(kFirst, ~0U, 0) != 0) {  // an old kernel, or a filter that does not know it
        for (int fd = kFirst; fd < maxDescriptors; ++fd) {
            close(fd);
        }
    }
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
}

}  // namespace

int systemCall(const char* command) {
    if (command == nullptr) {
        return 1;
    }
    const long maxDescriptors = sysconf(_SC_OPEN_MAX);  // may read files: not in the child
    const pid_t child = vfork();
    if (child == 0) {
        becomeShell(command, maxDescriptors);
    }
    if (child < 0) {
        ORBEL_LOG_ERROR("vfork(%s) failed\n", command);
        return -1;
    }
    int status = -1;
    return retryOnEintr([&] { return waitpid(child, &status, 0); }) < 0 ? -1 : status;
}

}  // namespace Vantel::Orbel
