#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Json {
class Value;
}

namespace Vantel::Log {

/// The link of this process to the log server of the machine. ILogger and the functions of Olog.h
/// work on it; it is for who wants more than a name and a level: a server elsewhere, the lines of
/// other processes, a core file after a crash. Call its init() before ILogger::init() then.
///
/// Its levels are not those of ILogger: 1 trace, 2 debug, 3 information, 4 warning, 5 error,
/// 6 fatal. Its own messages go to standard output and standard error.
///
/// Threads: any, at once. No call but init() waits for the server.
class ORBEL_API ILogClient {
public:
    /// See OlogGcoreCallback.
    using GcoreCallback = void (*)(int status, void* user, ...);
    /// Kind 0: `data` is a line of `size` bytes of a subscribed module. Kind 1: a text of the
    /// server. Both are followed by a zero byte and go with the call.
    using RecvCallback = void (*)(int kind, void* user, const char* data, uint32_t size,
                                  ILogClient* client);

    /// The client of the process, made at first use, which should come before threads start; never
    /// destroyed.
    static ILogClient* instance();

    virtual ~ILogClient() = default;

    /// Connects, for up to two seconds; false if there is no server or no "moduleName". A later
    /// call tries again after a failure; until then lines are dropped. After a success it changes
    /// nothing and is true. A server that goes away from then on is tried again about once a
    /// second, and up to 1025 packets wait for it.
    ///
    /// Keys, all but the first optional:
    ///   moduleName  string, the process's name at the server and in each line
    ///   logLevel    integer, 3; lines of print() below it are dropped
    ///   socketPath  string, "/tmp/logServer.sock"
    ///   subscribe   array of objects with moduleName: whose lines the receiver gets
    ///   coredump    boolean, false: whether a crash makes the core file
    ///               "logPath"/coredump/module.core, in a directory that must exist
    ///   logPath     string, "/data/logger/log"
    ///   gdbPath     string, "/usr/bin/gdb"; must be allowed to attach to its parent process
    virtual bool init(const Json::Value& config) = 0;
    /// Does nothing; always false.
    virtual bool deinit() = 0;
    /// Always true. See ologSetGcoreCallback().
    virtual bool setGcoreCallback(GcoreCallback callback, void* user) = 0;
    ///@{
    /// The level below which print() drops lines, 3 at first. Any number is taken; always true.
    virtual bool setLogLevel(int level) = 0;
    virtual int getLogLevel() = 0;
    ///@}
    /// Formats a line with a head of its own and sends it. The whole packet's size, 0 for a line
    /// that is not wanted, -1 for one that is lost.
    virtual int print(int level, const char* format, ...) __attribute__((format(printf, 3, 4))) = 0;
    /// The room in bytes that write() needs in front of a line: 44.
    virtual int headerSize() = 0;
    /// Sends `size` bytes, at most 1 MiB, that stand behind headerSize() free bytes of `buffer`,
    /// which are overwritten. Result as of print().
    virtual int write(char* buffer, int size) = 0;
    /// Asks the server to write out what it holds; false if that could not be sent.
    virtual bool flush() = 0;
    /// Sends the command 4, whose meaning is the server's; false if it could not be sent.
    virtual bool notifyServer() = 0;
    /// Sets the receiver of what the server sends, null for none; always true. It is called on the
    /// client's own thread.
    virtual bool setRecvCallback(RecvCallback callback, void* user) = 0;
};

}  // namespace Vantel::Log
