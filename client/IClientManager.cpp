#include "Vantel/Client/IClientManager.h"

#include <signal.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Vantel/Config/IConfigManager.h"
#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/CThreadManager.h"
#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/CTimerManager.h"
#include "file/FileCacheImpl.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"

namespace Vantel::Client {

namespace {

constexpr int64_t kTimerDumpMs = 360000;
constexpr int64_t kBlockCheckMs = 120000;
constexpr int64_t kAllWellMs = 60000;  // on top, when no thread was late

struct ClientState {
    static ClientState& instance() {
        static auto* const state = new ClientState;  // never destroyed
        return *state;
    }

    bool exitRequested = false;  // for good
    std::atomic<bool> started{false};
    // In the monotonic time of the machine, so that the first call does both, unless the machine
    // has been up for less than the period.
    int64_t lastTimerDump = 0;
    int64_t lastBlockCheck = 0;
    Orbel::CMutex mutex;  // start()
};

constinit std::atomic<int> pendingSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler stores it");

void onSignal(int number, siginfo_t*, void*) {
    pendingSignal.store(number, std::memory_order_relaxed);
}

void installHandlers() {
    struct sigaction action {};
    action.sa_sigaction = &onSignal;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGINT, SIGTERM, SIGTSTP}) {
        sigaction(number, &action, nullptr);
    }
}

void warnOfLateThreads(ClientState& state, int64_t now) {
    state.lastBlockCheck = now;
    std::vector<std::string> names;
    if (!Orbel::CThreadManager::instance()->getTimeoutThreadName(names)) {
        state.lastBlockCheck += kAllWellMs;
        return;
    }
    ORBEL_LOG_WARN(" \n\nthreads running maybe block:\n");
    for (const std::string& name : names) {
        ORBEL_LOG_WARN(" \ttimeout thread  name %s\n", name.c_str());
    }
    ORBEL_LOG_WARN(" \n\n");
}

void watch(ClientState& state) {
    const auto now = static_cast<int64_t>(Orbel::CTime::getCurrentMilliSecond());
    if (now - state.lastTimerDump > kTimerDumpMs) {
        state.lastTimerDump = now;
        Orbel::CTimerManager::instance()->printTimers();
    }
    if (now - state.lastBlockCheck > kBlockCheckMs) {
        warnOfLateThreads(state, now);
    }
}

}  // namespace

IClientManager* IClientManager::instance() {
    static auto* const manager = new IClientManager;  // never destroyed
    return manager;
}

bool IClientManager::start(const char* name) {
    ClientState& state = ClientState::instance();
    Orbel::Guard<Orbel::CMutex> guard(state.mutex);
    if (state.started) {
        return true;
    }
    Orbel::CThreadManager::instance()->registerMainThread();
    Orbel::CThread::setCurrentThreadName(name == nullptr ? "app" : name);
    installHandlers();
    state.started = true;
    return true;
}

bool IClientManager::started() {
    return ClientState::instance().started;
}

// A process ends by returning from its main loop; this stays empty.
void IClientManager::exitProcess() {}

bool IClientManager::checkProcessStatus() {
    ClientState& state = ClientState::instance();
    if (pendingSignal.exchange(0, std::memory_order_relaxed) != 0) {
        state.exitRequested = true;
    }
    Config::IConfigManager::instance()->processEvents();
    Orbel::FileCacheImpl::getInstance()->checkExpireCacheFile();
    if (!state.exitRequested) {
        watch(state);
    }
    return !state.exitRequested;
}

}  // namespace Vantel::Client
