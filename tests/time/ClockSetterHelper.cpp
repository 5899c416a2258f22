// Runs the library's own setting of the clock and prints what it did, without any clock to set: the
// right to do so is dropped first, the call is caught here, and the command is a script of ours.

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "Vantel/ILogger.h"
#include "Vantel/Orbel/CTime.h"
#include "tests/support/DropCapability.h"
#include "tests/support/WithoutLogServer.h"

using Vantel::ILogger;
using Vantel::Orbel::CTime;
using Vantel::Orbel::SystemTime;

namespace {

std::string done;
bool refuse = false;

void onLine(ILogger::LoggerLevel level, const char* line, int length) {
    const std::string text(line, static_cast<size_t>(length));
    const char* const words[] = {"", "trace ", "info ", "warn ", "error "};
    if (text.find("etCurrentTime") != std::string::npos) {
        done += words[static_cast<int>(level)];
    }
}

bool tell(SystemTime time) {
    done += time.year == 2024 ? "told " : "wrong ";
    CTime::attachModifyProc(&tell);  // for the next time
    return true;
}

void set(const std::string& role) {
    const CTime now = CTime::getCurrentTime();
    if (role == "tolerated") {
        CTime::setCurrentTime(now + 500, 1000);
        CTime::setCurrentTime(now - 500, 1000);
    } else if (role == "clamped") {
        SystemTime future = now;
        future.year = 12345;
        CTime::setCurrentTime(CTime(future), 0);
    } else {
        CTime::setCurrentTime({2024, 5, 6, 7, 8, 9, 10}, 1000);
    }
}

}  // namespace

/// In the place of the C library's.
extern "C" int settimeofday(const timeval* value, const struct timezone*) noexcept {
    if (refuse) {
        errno = EPERM;
        return -1;
    }
    done += std::to_string(value->tv_sec) + " ";
    return 0;
}

int main(int, char** argv) {
    const std::string role = argv[1];
    char directory[] = "/tmp/orbel_clock_XXXXXX";
    if (!OrbelTest::dropCapability(CAP_SYS_TIME) || mkdtemp(directory) == nullptr) {
        return 1;
    }
    const std::string script = std::string(directory) + "/hwclock";
    const bool broken = role == "broken" || role == "told";
    std::ofstream(script) << "#!/bin/sh\n[ \"$1\" = -w ] && echo >$0.ran\nexit " << broken << "\n";
    chmod(script.c_str(), 0700);
    setenv("PATH", directory, 1);

    ILogger::instance()->init("test", 4096);
    ILogger::instance()->setOutput(0);
    ILogger::instance()->attach(&onLine);
    CTime::setTimezoneOffset(0);
    refuse = role == "refused";
    if (role == "told") {
        CTime::attachModifyProc(&tell);
        CTime::attachModifyProc(&tell);
    }
    set(role);
    std::printf("%s%s\n", done.c_str(), access((script + ".ran").c_str(), F_OK) == 0 ? "rtc" : "");
    std::filesystem::remove_all(directory);
    return 0;
}
