#pragma once

#include <memory>
#include <string>

namespace Json {
class Value;
}

namespace Vantel::Log {

/// A non-blocking byte stream to the log server.
///
/// Threads: any, at once.
class ITransportLayer {
public:
    /// A transport of the class `type` ("UnixDomainSocket"), null for any other.
    static std::shared_ptr<ITransportLayer> create(const std::string& type);

    virtual ~ITransportLayer() = default;

    virtual bool connect(const Json::Value& config) = 0;
    virtual void close() = 0;
    /// -1 for none.
    virtual int fd() const = 0;
    /// One attempt; the count written, 0 if nothing fits now, -1 on failure.
    virtual int write(const void* buffer, int size) = 0;
    /// Goes on until all is written or `timeoutMs` have passed; the count written, -1 on failure.
    virtual int writeTimeout(const void* buffer, int size, int timeoutMs) = 0;
    /// One attempt, as read(2).
    virtual int read(void* buffer, int size) = 0;
    /// Goes on until all is read, the stream ends or `timeoutMs` have passed; the count read, -1 on
    /// failure.
    virtual int readTimeout(void* buffer, int size, int timeoutMs) = 0;
    /// The next connection of a listening transport, null without one.
    virtual std::shared_ptr<ITransportLayer> accept() = 0;
};

}  // namespace Vantel::Log
