#pragma once

#include <json/json.h>

#include <memory>

#include "Vantel/Log/ILogClient.h"

namespace Vantel::Log {

/// The client that talks to a server over a stream socket. Its messages go to standard output and
/// standard error, never to the logger. Never destroyed: its poller runs to the end of the process.
///
/// Threads: any, at once. The receiver is called on the poller's thread.
class LogClientImpl : public ILogClient {
public:
    LogClientImpl();
    ~LogClientImpl() override;

    bool init(const Json::Value& config) override;
    bool deinit() override;
    /// Has crashes reported: see CrashReport.
    bool setGcoreCallback(GcoreCallback callback, void* user) override;
    bool setLogLevel(int level) override;
    int getLogLevel() override;
    int print(int level, const char* format, ...) override __attribute__((format(printf, 3, 4)));
    int headerSize() override;
    int write(char* buffer, int size) override;
    bool flush() override;
    bool notifyServer() override;
    bool setRecvCallback(RecvCallback callback, void* user) override;

    /// Writes out what is queued, for a process that is about to end: true when nothing is left,
    /// false after `timeoutMs`. Safe beside a thread that crashed in the client.
    bool waitUntilSent(int timeoutMs);

private:
    class Internal;
    const std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Log
