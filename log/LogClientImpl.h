#pragma once

#include <json/json.h>

#include <memory>

#include "log/ILogClient.h"

namespace Vantel::Log {

/// The client that talks to a server over a stream socket. Its messages go to standard output and
/// standard error, never to the logger. Never destroyed: its poller runs to the end of the process.
///
/// Keys of init(), all but the first optional:
///   moduleName  string, the process's name at the server and in each line
///   logLevel    integer, 3; lines of print() below it are dropped
///   socketPath  string, "/tmp/logServer.sock"
///   subscribe   array of objects with moduleName: whose lines the receiver gets
///   coredump    boolean, false: whether a crash makes a core file, with the next two
///   logPath     string, "/data/logger/log"
///   gdbPath     string, "/usr/bin/gdb"
///
/// Threads: any, at once. The receiver is called on the poller's thread.
class LogClientImpl : public ILogClient {
public:
    LogClientImpl();
    ~LogClientImpl() override;

    /// Connects, for up to two seconds. A later call tries again after a failure; until then lines
    /// are dropped. Once connected, a server that goes away is tried again about once a second, and
    /// up to 1025 packets wait for it.
    bool init(const Json::Value& config) override;
    bool deinit() override;
    /// Also has crashes reported: see CrashReport.
    bool setGcoreCallback(GcoreCallback callback, void* user) override;
    bool setLogLevel(int level) override;
    int getLogLevel() override;
    /// The whole packet's size, 0 for a line that is not wanted, -1 for one that is lost.
    int print(int level, const char* format, ...) override __attribute__((format(printf, 3, 4)));
    int headerSize() override;
    int write(char* buffer, int size) override;
    bool flush() override;
    bool notifyServer() override;
    /// Kind 0: `data` is a line of `size` bytes of a subscribed module. Kind 1: a text.
    bool setRecvCallback(RecvCallback callback, void* user) override;

    /// Writes out what is queued, for a process that is about to end: true when nothing is left,
    /// false after `timeoutMs`. Safe beside a thread that crashed in the client.
    bool waitUntilSent(int timeoutMs);

private:
    class Internal;
    const std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Log
