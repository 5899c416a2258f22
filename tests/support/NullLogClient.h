#pragma once

#include "Vantel/Log/ILogClient.h"

namespace OrbelTest {

/// A log client that sends nothing anywhere.
class NullLogClient : public Vantel::Log::ILogClient {
public:
    bool init(const Json::Value&) override { return false; }
    bool deinit() override { return false; }
    bool setGcoreCallback(GcoreCallback, void*) override { return true; }
    bool setLogLevel(int) override { return true; }
    int getLogLevel() override { return 3; }
    int print(int, const char*, ...) override __attribute__((format(printf, 3, 4))) { return 0; }
    int headerSize() override { return 44; }
    int write(char*, int) override { return 0; }
    bool flush() override { return false; }
    bool notifyServer() override { return false; }
    bool setRecvCallback(RecvCallback, void*) override { return true; }
};

}  // namespace OrbelTest
