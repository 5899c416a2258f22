#include "log/SystemReport.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace Vantel::Log {

namespace {

/// A command to run, with its heading. The blanks at the end of some are meant.
struct Step {
    const char* command;  // what stands behind "%d" in it follows the process id
    const char* heading;
};

constexpr Step kSteps[] = {
    {"busybox free -m ", "Memory Info \n "},
    {"busybox ps -T ", "Thread Info \n "},
    {"busybox uptime ", "Uptime Info \n "},
    {"cat /proc/meminfo", "proc meminfo \n"},
    {"cat /proc/%d/maps", "application maps Info \n"},
    {"cat /proc/%d/status", "application status Info \n"},
    {"ls -l /proc/%d/fd", "application fd Info \n"},
};

std::string withProcessId(const char* command) {
    std::string text = command;
    const size_t at = text.find("%d");
    if (at != std::string::npos) {
        text.replace(at, 2, std::to_string(getpid()));
    }
    return text;
}

std::string readAll(FILE* stream) {
    std::string text;
    char piece[1024];
    for (;;) {
        errno = 0;
        const size_t count = std::fread(piece, 1, sizeof piece, stream);
        text.append(piece, count);
        if (count == sizeof piece) {
            continue;
        }
        if (std::ferror(stream) == 0 || errno != EINTR) {
            return text;
        }
        std::clearerr(stream);
    }
}

void printExit(ILogClient& client, const char* command, int status) {
    if (status == -1) {
        client.print(kErrorLevel, "execCmd %s, pclose error: %s\n", command, strerror(errno));
    } else if (WIFEXITED(status)) {
        if (WEXITSTATUS(status) != 0) {
            client.print(kErrorLevel, "execCmd %s, pclose exit status: %d\n", command,
                         WEXITSTATUS(status));
        }
    } else if (WIFSIGNALED(status)) {
        client.print(kErrorLevel, "execCmd %s, pclose exit signal number: %d\n", command,
                     WTERMSIG(status));
    } else {
        client.print(kErrorLevel, "execCmd %s, pclose exit unknown status: 0x%x\n", command,
                     static_cast<unsigned>(status));
    }
}

/// What `command` wrote, as far as it came.
std::string outputOf(ILogClient& client, const char* command) {
    FILE* stream = popen(command, "re");
    if (stream == nullptr) {
        client.print(kErrorLevel, "execCmd %s, popen error: %s\n", command, strerror(errno));
        return {};
    }
    std::string text = readAll(stream);
    printExit(client, command, pclose(stream));
    return text;
}

}  // namespace

void printSystemInfo(ILogClient& client) {
    client.print(kFatalLevel, "print system info begin\n");
    for (const Step& step : kSteps) {
        const std::string text = outputOf(client, withProcessId(step.command).c_str());
        client.print(kFatalLevel, "%s%s\n", step.heading, text.c_str());
    }
    client.print(kFatalLevel, "print system info end\n");
}

}  // namespace Vantel::Log
