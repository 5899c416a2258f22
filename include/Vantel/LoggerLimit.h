#pragma once

#include <cstdint>
#include <memory>

#include "Vantel/Export.h"
#include "Vantel/ILogger.h"

/// @file
/// A limiter for repeated log messages, and macros that ask it.

namespace Vantel {

/// Says whether a message of a call site may go out now, so that a message in a hot loop does not
/// flood the log. It only answers; ORBEL_LOG_LIMIT_RATE and the other macros below ask it and log.
///
/// A site is a source file and a line as seen by one thread: threads do not share a counter. Each
/// site has one record, made at its first question and kept until reset(), resetAll() or
/// cleanup(); nobody else ever takes one away, so a process whose threads come and go should call
/// cleanup() now and then. Sites are told apart by 64 bits made of a 32-bit FNV-1a hash of the
/// file name, the line and the thread id; two sites with the same bits share a record.
///
/// Threads: all methods, from any thread at once, under one lock. A question costs a hash over the
/// file name, the lock and a lookup; it allocates only the record. The limiter is never destroyed.
class ORBEL_API LoggerLimit {
public:
    /// Any thread, at any time.
    static LoggerLimit& instance();

    LoggerLimit(const LoggerLimit&) = delete;
    LoggerLimit& operator=(const LoggerLimit&) = delete;

    /// One message per `intervalMs` milliseconds. The clock starts at the first question, which is
    /// therefore answered with false unless `intervalMs` is 0.
    bool checkRateLimit(const char* file, uint32_t line, uint32_t intervalMs);

    /// The first `maxCount` messages.
    bool checkCountLimit(const char* file, uint32_t line, uint32_t maxCount);

    /// Each `every`-th message: for 3 the third, the sixth and so on; for 0 and 1 all.
    bool checkEveryLimit(const char* file, uint32_t line, uint16_t every);

    /// All messages after the first `after`. The count wraps at 65536, so the site is then silent
    /// for another `after` messages.
    bool checkAfterLimit(const char* file, uint32_t line, uint16_t after);

    /// Forgets what the calling thread asked for this site.
    void reset(const char* file, uint32_t line);

    /// Forgets all sites of all threads.
    void resetAll();

    /// Forgets the records older than `maxAgeMs` milliseconds. The age of a record counts from its
    /// last message that checkRateLimit() let through, otherwise from its making: under the other
    /// rules a site starts anew at that age, however busy it is.
    void cleanup(uint64_t maxAgeMs);

private:
    class ORBEL_LOCAL Internal;

    LoggerLimit();
    ~LoggerLimit();

    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel

///@{
/// One line through ILogger if the limiter lets it out. After the limit come the arguments of
/// ILogger::print(); they are evaluated only for a line that goes out. The site is the line of the
/// source: two macros on one line share their counters.
///
///     for (const Joint& joint : joints) {
///         if (joint.temperature() > kWarm) {
///             ORBEL_LOG_LIMIT_RATE(1000, Vantel::ILogger::kWarn, "Joint", "%s is at %.1f C\n",
///                                  joint.name(), joint.temperature());  // once a second
///         }
///     }
///
/// The limits are those of checkRateLimit(), checkCountLimit(), checkEveryLimit() and
/// checkAfterLimit(). A line that the limiter lets out and the level of the logger keeps back has
/// been counted.
#define ORBEL_LOG_LIMIT_RATE(intervalMs, level, tag, ...) \
    ORBEL_LOG_LIMITED_BY(checkRateLimit, intervalMs, level, tag, __VA_ARGS__)
#define ORBEL_LOG_LIMIT_COUNT(maxCount, level, tag, ...) \
    ORBEL_LOG_LIMITED_BY(checkCountLimit, maxCount, level, tag, __VA_ARGS__)
#define ORBEL_LOG_LIMIT_EVERY(every, level, tag, ...) \
    ORBEL_LOG_LIMITED_BY(checkEveryLimit, every, level, tag, __VA_ARGS__)
#define ORBEL_LOG_LIMIT_AFTER(after, level, tag, ...) \
    ORBEL_LOG_LIMITED_BY(checkAfterLimit, after, level, tag, __VA_ARGS__)
///@}

/// What the four macros above share; not for direct use.
#define ORBEL_LOG_LIMITED_BY(check, limit, level, tag, ...)                         \
    do {                                                                            \
        if (::Vantel::LoggerLimit::instance().check(__FILE__, __LINE__, (limit))) { \
            ::Vantel::ILogger::instance()->print((level), (tag), __VA_ARGS__);      \
        }                                                                           \
    } while (false)
