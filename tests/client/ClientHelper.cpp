// The main loop of a process: "loop" runs until a signal, "watch" looks at what the first call
// logs.

#include <sys/prctl.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Vantel/Client/IClientManager.h"
#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/CThreadManager.h"
#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/CTimer.h"
#include "Vantel/Orbel/CTimerManager.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Orbel;
using Vantel::Client::IClientManager;

namespace {

int loop(IClientManager& client) {
    char name[16] = {};
    prctl(PR_GET_NAME, name);
    client.start("another");  // changes nothing
    client.exitProcess();     // neither does this
    const bool goesOn = client.checkProcessStatus();
    std::printf("%s as %s\n", goesOn ? "running" : "stopped", name);
    std::fflush(stdout);
    while (client.checkProcessStatus()) {
        CThread::sleep(1);
    }
    std::printf("%s\n", client.checkProcessStatus() ? "running again" : "ended");
    return client.started() ? 0 : 1;
}

std::atomic<bool> checked{false};

void late(unsigned long) {
    CThread::setCurrentTimeout(1);
    OrbelTest::waitFor([] { return checked.load(); });
}

int watch(IClientManager& client) {
    OrbelTest::LogCapture log;
    CTimerManager::instance()->limitIdlePooled(2);
    CTimer timer("late one");
    timer.start(&late, 0, 0, 0, 0);
    std::vector<std::string> lateOnes;
    OrbelTest::waitFor([&] { return CThreadManager::instance()->getTimeoutThreadName(lateOnes); });
    client.checkProcessStatus();
    client.checkProcessStatus();  // neither is due again
    checked = true;
    const uint64_t uptimeMs = CTime::getCurrentMilliSecond();  // below the periods none is due
    std::printf("lists %d warnings %d names %d\n",
                log.count("TimerManagerPool Thread count: ( 1 )") + (uptimeMs <= 360000),
                log.count("\n\nthreads running maybe block:\n") + (uptimeMs <= 120000),
                log.count("\ttimeout thread  name late one(") + (uptimeMs <= 120000));
    return 0;
}

}  // namespace

int main(int, char** argv) {
    IClientManager& client = *IClientManager::instance();
    if (client.started() || !client.start(std::strcmp(argv[2], "app") == 0 ? nullptr : argv[2])) {
        return 1;
    }
    return std::strcmp(argv[1], "loop") == 0 ? loop(client) : watch(client);
}
