#include "log/CrashReport.h"

#include <execinfo.h>
#include <signal.h>

#include <cstdlib>
#include <memory>

#include "log/AsyncSignalHandler.h"
#include "log/CoreFile.h"
#include "log/SystemReport.h"

namespace Vantel::Log {

namespace {

constexpr int kSendTimeoutMs = 2000;

void printBacktrace(ILogClient& client, const SignalInfo& info) {
    if (info.frameCount <= 0) {
        return;
    }
    const std::unique_ptr<char*, decltype(&std::free)> symbols(
        backtrace_symbols(info.frames, info.frameCount), &std::free);
    if (symbols == nullptr) {
        client.print(kFatalLevel, "backtrace_symbols error");  // without a newline
        return;
    }
    client.print(kFatalLevel, "print backtrace begin\n");
    for (int i = 0; i < info.frameCount; ++i) {
        client.print(kFatalLevel, "%s\n", symbols.get()[i]);
    }
    client.print(kFatalLevel, "print backtrace end\n");
}

}  // namespace

void CrashReport::operator()(const SignalInfo& info) const {
    client->print(kFatalLevel, "coredump thread id = %d thread name = %s signo = %d\n", info.tid,
                  info.threadName, info.signo);
    if (callback != nullptr) {
        callback(0, user);
    }
    printSystemInfo(*client);
    printBacktrace(*client, info);
    client->flush();
    waitUntilSent(kSendTimeoutMs);
    if (makeCoreFile(*client, config())) {
        waitUntilSent(kSendTimeoutMs);
    }
    if (callback != nullptr) {
        callback(1, user);
    }
}

void captureCrashes(const CrashReport& report) {
    AsyncSignalHandler& handler = AsyncSignalHandler::instance();
    handler.start();
    for (const int signo : {SIGABRT, SIGSEGV, SIGILL, SIGFPE, SIGBUS, SIGSYS}) {
        handler.setHandler(signo, report);
    }
}

}  // namespace Vantel::Log
