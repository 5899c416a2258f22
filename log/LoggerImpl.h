#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <string>

#include "Vantel/ILogger.h"
#include "Vantel/Log/ILogClient.h"
#include "Vantel/Orbel/TSignal.h"

namespace Vantel {

class LoggerImpl : public ILogger {
public:
    /// Lines go to `client`, which must outlive the logger.
    explicit LoggerImpl(Log::ILogClient& client) : mClient(client) {}

    bool init(const char* moduleName, int32_t bufferSize) override;
    bool attach(const LineDelegate& proc) override;
    bool detach(const LineDelegate& proc) override;
    bool setOutput(int mask) override;
    bool setLevel(int32_t level) override;
    int32_t dumpHex(const void* data, int32_t size) override;
    int32_t print(LoggerLevel level, const char* tag, const char* format, ...) override
        __attribute__((format(printf, 4, 5)));

private:
    int32_t printLine(LoggerLevel level, const char* tag, const char* format, va_list arguments)
        __attribute__((format(printf, 4, 0), noinline));
    size_t writeHead(char* line, size_t room, LoggerLevel level, const char* tag) const;
    void hand(LoggerLevel level, char* buffer, int32_t length);

    // What print() reads is atomic, relaxed but for mInited: its release publishes the name.
    std::atomic<bool> mInited{false};
    bool mExactTime = false;
    std::atomic<uint8_t> mOutput{kToClient};
    uint32_t mHeaderSize = 0;  // what the client needs in front of a line
    int32_t mBufferSize = 0;   // the longest line with its terminator
    std::atomic<int32_t> mLevel{0};
    std::string mModuleName = "unknown";
    Orbel::TSignal<LoggerLevel, const char*, int> mSignal;
    Log::ILogClient& mClient;

    static constexpr uint8_t kToConsole = 1;
    static constexpr uint8_t kToClient = 16;
};

}  // namespace Vantel
