#pragma once

#include <cstdint>

namespace Json {
class Value;
}

namespace Vantel::Log {

/// The link of this process to the log server of the machine.
///
/// Its levels are not those of ILogger: 1 trace, 2 debug, 3 information, 4 warning, 5 error,
/// 6 fatal.
class ILogClient {
public:
    using GcoreCallback = void (*)(int status, void* user, ...);
    using RecvCallback = void (*)(int kind, void* user, const char* data, uint32_t size,
                                  ILogClient* client);

    /// The client of the process, made at first use, which should come before threads start.
    static ILogClient* instance();

    virtual ~ILogClient() = default;

    virtual bool init(const Json::Value& config) = 0;
    /// Does nothing; always false.
    virtual bool deinit() = 0;
    virtual bool setGcoreCallback(GcoreCallback callback, void* user) = 0;
    virtual bool setLogLevel(int level) = 0;
    virtual int getLogLevel() = 0;
    /// Formats a line with a head of its own and sends it.
    virtual int print(int level, const char* format, ...) __attribute__((format(printf, 3, 4))) = 0;
    /// The room in bytes that write() needs in front of a line.
    virtual int headerSize() = 0;
    /// Sends `size` bytes that stand behind headerSize() free bytes of `buffer`.
    virtual int write(char* buffer, int size) = 0;
    virtual bool flush() = 0;
    virtual bool notifyServer() = 0;
    virtual bool setRecvCallback(RecvCallback callback, void* user) = 0;
};

}  // namespace Vantel::Log
