// Linked with the shared library, as applications are.
//
//     LoadOrderSharedHelper                  does nothing; says how many threads it has
//     LoadOrderSharedHelper DOMAIN           exits with a domain and a timer in use; prints what
//                                            ends in which order

#include <json/json.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>

#include "Vantel/ILogger.h"
#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/CTimer.h"
#include "Vantel/Orbel/SharedMemBuffer.h"
#include "Vantel/Orbel/SharedMemDomain.h"
#include "Vantel/Orbel/SharedMemNode.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"

using namespace Vantel::Orbel;
using Vantel::ILogger;

namespace {

std::atomic<bool> fired{false};

void fire(unsigned long) {
    fired = true;
}

/// Made before anything of the library is used, and so the last object of ours to go.
struct First {
    ~First() {
        if (channel != nullptr) {
            auto sample = channel->allocate(8, 0);
            std::printf("commit %d\n", sample != nullptr && channel->commit(sample));
            timer->start(&fire, 1, 0, 0, 0);
            for (int i = 0; i < 300 && !(fired && !timer->isRunning()); ++i) {
                CThread::sleep(100);
            }
            std::printf("timer %d\n", fired.load());
        }
    }

    std::unique_ptr<CTimer> timer;
    std::shared_ptr<SharedMemWriteChannel> channel;
};

First first;

void onLine(ILogger::LoggerLevel, const char* line, int) {
    char name[32];
    const char* const leave = std::strstr(line, "ThreadBody leave");
    if (leave != nullptr && std::sscanf(leave, "ThreadBody leave name = %31[^,]", name) == 1) {
        std::printf("leave %s\n", name);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        const auto threads = std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                           std::filesystem::directory_iterator());
        std::printf("threads %ld\n", static_cast<long>(threads));
        return 0;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 4096);
    ILogger* const logger = ILogger::instance();
    logger->init("order", 4096);
    logger->setOutput(0);
    logger->attach(&onLine);
    auto domain = SharedMemDomain::instance(argv[1]);
    domain->setPoolConfigs({{"small", 64, 8, 4}});
    if (!domain->init(Json::objectValue)) {
        return 1;
    }
    auto node = domain->createNode("first");
    node->init();
    first.channel = node->newWriteChannel(argv[1]);
    if (!first.channel->init() || !first.channel->create({}, {})) {
        return 1;
    }
    first.timer = std::make_unique<CTimer>("first");
    std::printf("main\n");
    return 0;
}
