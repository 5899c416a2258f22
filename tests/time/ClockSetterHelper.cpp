// Runs the library's own setting of the clock and prints what it did, without any clock to set: the
// right to do so is dropped first, the call is caught here, and the command is a script of ours.

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "Vantel/ILogger.h"
#include "Vantel/Orbel/CTime.h"
#include "tests/support/WithoutLogServer.h"

using Vantel::ILogger;
using Vantel::Orbel::CTime;
using Vantel::Orbel::SystemTime;

namespace {

std::string done;
bool refuse = false;
time_t setTo = 0;

void onLine(ILogger::LoggerLevel level, const char* line, int length) {
    const std::string text(line, static_cast<size_t>(length));
    const char* const words[] = {"", "trace ", "info ", "warn ", "error "};
    if (text.find("etCurrentTime") != std::string::npos) {
        done += words[static_cast<int>(level)];
    }
}

bool tell(SystemTime time) {
    done += time.year == 2024 ? "told " : "wrong ";
    Vantel::Orbel::TDelegate<bool, SystemTime> another(&tell);
    CTime::attachModifyProc(another);  // for the next time
    return true;
}

bool dropRightToSetClocks() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    data[0].effective &= ~(1u << CAP_SYS_TIME);
    data[0].permitted &= ~(1u << CAP_SYS_TIME);
    data[0].inheritable &= ~(1u << CAP_SYS_TIME);
    return syscall(SYS_capset, &header, data) == 0;
}

}  // namespace

/// In the place of the C library's.
extern "C" int settimeofday(const timeval* value, const struct timezone*) noexcept {
    if (refuse) {
        errno = EPERM;
        return -1;
    }
    done += "settimeofday ";
    setTo = value->tv_sec;
    return 0;
}

int main(int, char** argv) {
    const std::string role = argv[1];
    char directory[] = "/tmp/orbel_clock_XXXXXX";
    if (!dropRightToSetClocks() || mkdtemp(directory) == nullptr) {
        return 1;
    }
    const std::string script = std::string(directory) + "/hwclock";
    const std::string mark = script + ".ran";
    std::ofstream(script) << "#!/bin/sh\n[ \"$1\" = -w ] && echo >" << mark << "\nexit "
                          << (role == "broken" || role == "told" ? 1 : 0) << "\n";
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
    if (access(mark.c_str(), F_OK) == 0) {
        done.insert(done.find("settimeofday ") + 13, "hwclock ");
    }
    const bool rightTime = setTo == 0 || setTo == (role == "clamped" ? 253370764800 : 1714979289);
    std::printf("%s\n", done.c_str());
    unlink(mark.c_str());
    unlink(script.c_str());
    rmdir(directory);
    return rightTime ? 0 : 2;
}
