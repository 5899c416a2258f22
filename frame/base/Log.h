#pragma once

#include <atomic>
#include <cstddef>

#include "Vantel/ILogger.h"

namespace Vantel::Orbel {

// Null until the first ILogger::instance(), which is what sets it. Looked at here as well: most
// lines are below the level, and the call would be a good part of what those cost.
extern constinit std::atomic<ILogger*> processLogger;

inline ILogger* logger() {
    ILogger* known = processLogger.load(std::memory_order_acquire);
    return known != nullptr ? known : ILogger::instance();
}

/// No constant expression may call it, so a compilation that needs it stops. (A throw would do the
/// same, but then the analyser takes every function that logs for one that may throw.)
void sourceFileNameTooLongForALogLine();

/// "/a/b/Spin.cpp" -> "Spin": the name under which a source file appears in a log line.
/// Evaluated at compile time by the macros below; no other place formats it.
struct SourceName {
    consteval explicit SourceName(const char* path) {
        const char* begin = path;
        for (const char* at = path; *at != '\0'; ++at) {
            if (*at == '/') {
                begin = at + 1;
            }
        }
        size_t length = 0;
        while (begin[length] != '\0' && begin[length] != '.') {
            if (length + 1 >= sizeof name) {
                sourceFileNameTooLongForALogLine();
            }
            name[length] = begin[length];
            ++length;
        }
    }

    char name[64] = {};
};

}  // namespace Vantel::Orbel

/// One line of the library's own log. `format` is a literal without the "[%s:%d]" in front of it.
#define ORBEL_LOG_AT(level, format, ...)                                                 \
    do {                                                                                 \
        static constexpr ::Vantel::Orbel::SourceName orbelSourceName(__FILE__);          \
        ::Vantel::Orbel::logger()->print(::Vantel::ILogger::LoggerLevel::level, "Orbel", \
                                         "[%s:%d]" format, orbelSourceName.name,         \
                                         __LINE__ __VA_OPT__(, ) __VA_ARGS__);           \
    } while (false)

#define ORBEL_LOG_DEBUG(...) ORBEL_LOG_AT(kDebug, __VA_ARGS__)
#define ORBEL_LOG_TRACE(...) ORBEL_LOG_AT(kTrace, __VA_ARGS__)
#define ORBEL_LOG_INFO(...) ORBEL_LOG_AT(kInfo, __VA_ARGS__)
#define ORBEL_LOG_WARN(...) ORBEL_LOG_AT(kWarn, __VA_ARGS__)
#define ORBEL_LOG_ERROR(...) ORBEL_LOG_AT(kError, __VA_ARGS__)
#define ORBEL_LOG_FATAL(...) ORBEL_LOG_AT(kFatal, __VA_ARGS__)
