// usage: CrashClientHelper SOCKET SINK LINES
// Crashes as a client of the log server at SOCKET, after LINES lines of 1000 bytes.
#include <json/json.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Vantel/ILogger.h"
#include "Vantel/Log/ILogClient.h"
#include "Vantel/Log/Olog.h"

int main(int argc, char** argv) {
    if (argc < 4) {
        return 2;
    }
    Json::Value config;
    config["moduleName"] = "crasher";
    config["socketPath"] = argv[1];
    auto* const client = Vantel::Log::ILogClient::instance();
    if (!client->init(config)) {
        return 3;
    }
    if (std::strcmp(argv[2], "logger") == 0) {
        Vantel::ILogger::instance()->init("crasher", 4096);
    } else {
        ologSetGcoreCallback(nullptr, nullptr);
    }
    const std::string line(1000, 'x');
    for (int i = 0; i < std::atoi(argv[3]); ++i) {
        client->print(3, "%06d%s\n", i, line.c_str());
    }
    std::printf("crashing\n");
    std::fflush(stdout);
    raise(SIGSEGV);
    return 0;
}
