#include "log/CoreFile.h"

#include <json/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "frame/base/RetryOnEintr.h"
#include "log/SystemReport.h"

namespace Vantel::Log {

namespace {

std::string textOf(const Json::Value& config, const char* key, const char* otherwise) {
    const Json::Value& value = config[key];
    return value.isString() ? value.asString() : otherwise;
}

bool parentIsDebugger() {
    char link[64];
    std::snprintf(link, sizeof link, "/proc/%ld/exe", static_cast<long>(getppid()));
    char path[4096];
    const ssize_t length = readlink(link, path, sizeof path - 1);
    if (length <= 0) {
        return false;
    }
    path[length] = '\0';
    const char* slash = std::strrchr(path, '/');
    return std::strstr(slash != nullptr ? slash : path, "gdb") != nullptr;
}

/// In the child of a vfork, which runs on the memory of its parent: system calls only.
[[noreturn]] void becomeDebugger(const char* path, const char* const* arguments, int openMax) {
    if (close_range(0, ~0U, 0) != 0) {
        for (int fd = 0; fd < openMax; ++fd) {
            close(fd);
        }
    }
    execv(path, const_cast<char* const*>(arguments));
    _exit(0);
}

/// The raw wait status of the debugger that wrote `core`; false if it could not be started.
bool runDebugger(const char* path, const char* core, int& status) {
    char attach[32];
    std::snprintf(attach, sizeof attach, "attach %d", getpid());
    const std::string gcore = std::string("gcore ") + core;
    const char* const arguments[] = {"gdb",     "--nx",
                                     "--batch", "--readnever",
                                     "-ex",     "set pagination off",
                                     "-ex",     "set height 0",
                                     "-ex",     "set width 0",
                                     "-ex",     "set use-coredump-filter off",
                                     "-ex",     "set dump-excluded-mappings on",
                                     "-ex",     attach,
                                     "-ex",     gcore.c_str(),
                                     "-ex",     "detach",
                                     "-ex",     "quit",
                                     nullptr};
    const auto openMax = static_cast<int>(sysconf(_SC_OPEN_MAX));
    // Not fork: that copies the page tables of a process that may be large.
    const pid_t child = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (child == 0) {
        becomeDebugger(path, arguments, openMax);
    }
    if (child < 0) {
        return false;
    }
    Orbel::retryOnEintr([&] { return waitpid(child, &status, 0); });
    return true;
}

}  // namespace

bool makeCoreFile(ILogClient& client, const Json::Value& config) {
    if (!config.isObject() || !config["coredump"].isBool() || !config["coredump"].asBool()) {
        return false;
    }
    const std::string debugger = textOf(config, "gdbPath", "/usr/bin/gdb");
    if (parentIsDebugger() || access(debugger.c_str(), F_OK) != 0) {
        return false;
    }
    char core[256];
    std::snprintf(core, sizeof core, "%s/coredump/%s.core",
                  textOf(config, "logPath", "/data/logger/log").c_str(),
                  textOf(config, "moduleName", "").c_str());
    int status = 0;
    if (!runDebugger(debugger.c_str(), core, status)) {
        return false;
    }
    client.print(kFatalLevel, "coredump [%s] status %d\n", core, status);
    return true;
}

}  // namespace Vantel::Log
