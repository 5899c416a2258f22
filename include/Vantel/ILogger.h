#pragma once

#include <cstdint>

#include "Vantel/Export.h"
#include "Vantel/Orbel/TDelegate.h"

namespace Vantel {

/// The logger of the process. It builds the lines
///     [YYYY-MM-DD HH:MM:SS.mmm][module][level][thread id][tag]message
/// filters them by level, and hands each to standard error (in colour), to the client of the log
/// server, and to any number of attached delegates.
///
/// Until init() every line is swallowed. The logger is made at first use and never destroyed.
///
/// Threads: print() and dumpHex() from any thread at once, attach(), detach() and setLevel() too.
/// init() and setOutput() belong to the start of the process. Delegates run in the thread that
/// logs, under the lock of the list: they may attach and detach; one that logs ends the walk of
/// the line that it was called for. print() needs about 6 KiB of stack and no heap.
class ORBEL_API ILogger {
public:
    /// The word in the line is "[debug]", "[tracef]", "[info]", "[warn]", "[error]", "[fatal]".
    /// Debug stands below trace. Any other value has no word.
    enum LoggerLevel : int32_t { kDebug = 0, kTrace, kInfo, kWarn, kError, kFatal };

    /// Gets the level, the line (terminated) and its length in bytes.
    using LineDelegate = Orbel::TDelegate<void, LoggerLevel, const char*, int>;

    /// Any thread, at any time; see init().
    static ILogger* instance();

    virtual ~ILogger() = default;

    /// Sets the logger up, once: a second call changes nothing and is true. `moduleName` is the
    /// name of the process in each line; `bufferSize` the longest line in bytes with its
    /// terminator, at most 4096, of which the log client takes 44. False, with a line on standard
    /// error, for a null or empty name and a size below 1. Starts with everything let through
    /// and only the log client as sink. If the environment has ORBEL_LOG_TIMESTAMP, each line is
    /// stamped with the exact time; otherwise stamps are up to 0.4 seconds old.
    /// Also installs the crash handlers: a fatal signal is reported to the log server, then the
    /// process ends with exit status 255. See ologSetGcoreCallback().
    virtual bool init(const char* moduleName, int32_t bufferSize) = 0;

    /// Adds a delegate as a sink, unless an equal one is there. Always true.
    virtual bool attach(const LineDelegate& proc) = 0;

    /// Takes a delegate away. Always true.
    virtual bool detach(const LineDelegate& proc) = 0;

    /// Selects the built-in sinks: bit 0 (1) standard error, bit 4 (16) the log client. Always
    /// true. Delegates get their lines in any case.
    virtual bool setOutput(int mask) = 0;

    /// Lets only lines of `level` and above through. The level of the log client is set to its
    /// counterpart, on the client's own scale. False before init().
    virtual bool setLevel(int32_t level) = 0;

    /// Writes `size` bytes at information level, 16 to a row, as hexadecimal digits and
    /// characters. Always 0.
    virtual int32_t dumpHex(const void* data, int32_t size) = 0;

    /// Writes one line; `tag` may be null, `format` is printf's and ends in its own newline.
    /// Returns the length of the line; 0 if it was not let through; -1 for an empty message or a
    /// format error. A line that does not fit is cut and still ends in a newline. errno is kept.
    virtual int32_t print(LoggerLevel level, const char* tag, const char* format, ...)
        __attribute__((format(printf, 4, 5))) = 0;
};

}  // namespace Vantel
