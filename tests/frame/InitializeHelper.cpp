// Initialises the library with locked memory, "refused" after giving up the right to do so, and
// prints what came of it.

#include <json/json.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "Vantel/Orbel/Initialize.h"
#include "file/FileDefaultOpt.h"
#include "tests/support/DropCapability.h"

namespace {

bool memoryIsLocked() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmLck:", 0) == 0) {
            return std::stoul(line.substr(6)) > 0;
        }
    }
    return false;
}

}  // namespace

int main(int, char** argv) {
    signal(SIGPIPE, SIG_DFL);  // a test may have passed on another
    const rlimit none{0, 0};
    if (std::strcmp(argv[1], "refused") == 0 &&
        (setrlimit(RLIMIT_MEMLOCK, &none) != 0 || !OrbelTest::dropCapability(CAP_IPC_LOCK))) {
        return 1;
    }
    Json::Value config;
    config["realtime"]["enable"] = true;
    config["fileIOBuffer"] = 2048;
    const bool result = Vantel::Orbel::initialize(config);
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    std::printf("result %d locked %d pipe %d buffer %d\n", result, memoryIsLocked(),
                action.sa_handler == SIG_IGN,
                Vantel::Orbel::FileDefaultOpt::instance()->fileBuffer());
    return 0;
}
