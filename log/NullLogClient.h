#pragma once

#include <atomic>

#include "log/ILogClient.h"

namespace Vantel::Log {

/// The log client of a process without a log server: it never connects and drops every line.
class NullLogClient : public ILogClient {
public:
    bool init(const Json::Value& config) override;
    bool deinit() override;
    /// False: nothing here would ever call it.
    bool setGcoreCallback(GcoreCallback callback, void* user) override;
    bool setLogLevel(int level) override;
    int getLogLevel() override;
    int print(int level, const char* format, ...) override __attribute__((format(printf, 3, 4)));
    int headerSize() override;
    int write(char* buffer, int size) override;
    bool flush() override;
    bool notifyServer() override;
    bool setRecvCallback(RecvCallback callback, void* user) override;

private:
    std::atomic<int> mLogLevel{3};
};

}  // namespace Vantel::Log
