#pragma once

#include <json/json.h>

#include <functional>

#include "Vantel/Log/ILogClient.h"
#include "log/SignalInfo.h"

namespace Vantel::Log {

/// The last words of the process: which thread and signal, the state of the machine and of the
/// process, the backtrace, and a core file if the configuration asks for one. All of it goes
/// through the client's print(), on the reporting thread of AsyncSignalHandler.
///
/// The report may meet locks that the crashed thread holds; the 10 seconds that a report is given
/// end the wait. They also cut off a core file that takes longer.
struct CrashReport {
    void operator()(const SignalInfo& info) const;

    ILogClient* client;                  // lives as long as the process
    ILogClient::GcoreCallback callback;  // called with 0 before and 1 behind the report; or null
    void* user;
    std::function<Json::Value()> config;  // the client's, asked at the time of the crash
    // Waits until the client has nothing left to send, at most so long: the callback may end the
    // process, and a slow server would miss what is still queued.
    std::function<void(int timeoutMs)> waitUntilSent;
};

/// Catches SIGABRT, SIGSEGV, SIGILL, SIGFPE, SIGBUS and SIGSYS and has them reported by `report`,
/// which replaces an earlier one.
void captureCrashes(const CrashReport& report);

}  // namespace Vantel::Log
