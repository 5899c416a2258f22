#include "log/LoggerImpl.h"

#include <json/json.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Vantel/Orbel/CTime.h"
#include "frame/BuildIdentity.h"
#include "frame/base/Log.h"
#include "frame/base/RetryOnEintr.h"
#include "frame/base/ThreadId.h"
#include "log/HeadWriter.h"

namespace Vantel {

namespace {

constexpr int32_t kLongestLine = 4096;

struct LevelTraits {
    const char* word;
    const char* color;
    bool flush;
    int clientLevel;  // debug and trace change places on the client's scale
};

constexpr LevelTraits kLevels[] = {
    {"[debug]", "\033[0m", false, 2}, {"[tracef]", "\033[0m", false, 1},
    {"[info]", "\033[32m", false, 3}, {"[warn]", "\033[33m", true, 4},
    {"[error]", "\033[31m", true, 5}, {"[fatal]", "\033[31m", true, 6},
};
constexpr LevelTraits kOtherLevel = {"", "\033[0m", false, 2};

const LevelTraits& traitsOf(int32_t level) {
    return level >= 0 && level < static_cast<int32_t>(std::size(kLevels)) ? kLevels[level]
                                                                          : kOtherLevel;
}

/// One system call and no stdio: fprintf on the unbuffered stream takes 8 KiB of stack, half of
/// the smallest thread. A failure has nobody to tell.
void writeToConsole(ILogger::LoggerLevel level, const char* text, size_t length) {
    const char* color = traitsOf(level).color;
    constexpr char kPlain[] = "\033[0m";
    const iovec pieces[] = {{const_cast<char*>(color), std::strlen(color)},
                            {const_cast<char*>(text), length},
                            {const_cast<char*>(kPlain), sizeof kPlain - 1}};
    Orbel::retryOnEintr([&] { return writev(STDERR_FILENO, pieces, std::size(pieces)); });
}

bool refuse(const char* message) {
    writeToConsole(ILogger::kError, message, std::strlen(message));
    return false;
}

/// The crash report of a process with a logger ends it.
void onCrash(int status, void* /*user*/, ...) {
    if (status == 1) {
        _exit(-1);
    }
}

/// Keeps the caller's errno over a line that it logs on its way to reporting it.
class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    ~ErrnoKeeper() { errno = mErrno; }

private:
    const int mErrno = errno;
};

}  // namespace

constinit std::atomic<ILogger*> Orbel::processLogger{nullptr};

ILogger* ILogger::instance() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    ILogger* known = Orbel::processLogger.load(std::memory_order_acquire);
    if (known == nullptr) {
        // Never destroyed: other objects log in their own destructors.
        pthread_once(&once, [] {
            Orbel::processLogger.store(new LoggerImpl(*Log::ILogClient::instance()),
                                       std::memory_order_release);
        });
        known = Orbel::processLogger.load(std::memory_order_acquire);
    }
    return known;
}

bool LoggerImpl::init(const char* moduleName, int32_t bufferSize) {
    if (mInited.load(std::memory_order_acquire)) {
        return true;
    }
    if (moduleName == nullptr || moduleName[0] == '\0') {
        return refuse("setConfig logger module invalid\n");
    }
    if (bufferSize <= 0) {
        return refuse("setConfig logger buffer size <= 0\n");
    }
    mExactTime = std::getenv("ORBEL_LOG_TIMESTAMP") != nullptr;

    Json::Value config;
    config["moduleName"] = moduleName;
    config["logLevel"] = 1;  // all of it: the filter is here
    mClient.init(config);    // without a server the logger works as well
    mClient.setGcoreCallback(&onCrash, nullptr);

    mHeaderSize = static_cast<uint32_t>(mClient.headerSize());
    mBufferSize = std::min(bufferSize, kLongestLine) - static_cast<int32_t>(mHeaderSize);
    mLevel.store(0, std::memory_order_relaxed);
    mModuleName = moduleName;
    mInited.store(true, std::memory_order_release);

    mClient.print(3, "Set Process %s Logger Config: buffer size %d\n", moduleName, mBufferSize);
    print(kInfo, nullptr, "Robot Version %s, %s, Header Commit %s\n", Orbel::getVersion(),
          Orbel::getBuildInfo(), Orbel::headerCommit());
    return true;
}

bool LoggerImpl::attach(const LineDelegate& proc) {
    mSignal.attach(proc);
    return true;
}

bool LoggerImpl::detach(const LineDelegate& proc) {
    mSignal.detach(proc);
    return true;
}

bool LoggerImpl::setOutput(int mask) {
    // The low byte counts only with the console's bit; the client's bit counts alone, too.
    const int output = ((mask & kToConsole) != 0 ? mask & 0xff : 0) | (mask & kToClient);
    mOutput.store(static_cast<uint8_t>(output), std::memory_order_relaxed);
    return true;
}

bool LoggerImpl::setLevel(int32_t level) {
    if (!mInited.load(std::memory_order_acquire)) {
        return false;
    }
    mLevel.store(level, std::memory_order_relaxed);
    mClient.setLogLevel(traitsOf(level).clientLevel);
    return true;
}

int32_t LoggerImpl::print(LoggerLevel level, const char* tag, const char* format, ...) {
    if (!mInited.load(std::memory_order_acquire) ||
        level < mLevel.load(std::memory_order_relaxed)) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const int32_t length = printLine(level, tag, format, arguments);
    va_end(arguments);
    return length;
}

int32_t LoggerImpl::printLine(LoggerLevel level, const char* tag, const char* format,
                              va_list arguments) {
    if (mBufferSize < 2 || format == nullptr) {
        return -1;  // no room for a newline and the terminator
    }
    const ErrnoKeeper keeper;
    char buffer[kLongestLine];  // not cleared: nobody looks behind the terminator
    char* line = buffer + mHeaderSize;
    const auto room = static_cast<size_t>(mBufferSize);

    const size_t head = writeHead(line, room - 2, level, tag);
    const size_t kept = std::min(head, room - 2);
    const int message = std::vsnprintf(line + kept, room - kept, format, arguments);
    if (message <= 0) {
        return -1;
    }
    size_t length = head + static_cast<size_t>(message);
    if (length >= room) {
        length = room - 1;
        line[length - 1] = '\n';
        line[length] = '\0';
    }
    hand(level, buffer, static_cast<int32_t>(length));
    return static_cast<int32_t>(length);
}

/// Writes the head into at most `room` bytes; returns the length it would have had.
size_t LoggerImpl::writeHead(char* line, size_t room, LoggerLevel level, const char* tag) const {
    const Orbel::CTime now =
        mExactTime ? Orbel::CTime::getCurrentTime() : Orbel::CTime::getCurTimeForPrint();
    Log::HeadWriter head(line, room);
    head.stamp(now);
    head.put('[').put(mModuleName).put(']');
    head.put(traitsOf(level).word);
    head.put('[').number(static_cast<unsigned>(Orbel::currentThreadId())).put(']');
    if (tag != nullptr) {
        head.put('[').put(tag).put(']');
    }
    return head.length();
}

/// Gives a line, which stands behind the client's room in `buffer`, to the sinks.
void LoggerImpl::hand(LoggerLevel level, char* buffer, int32_t length) {
    const char* line = buffer + mHeaderSize;
    const uint8_t output = mOutput.load(std::memory_order_relaxed);
    if ((output & kToConsole) != 0) {
        writeToConsole(level, line, static_cast<size_t>(length));
    }
    if ((output & kToClient) != 0) {
        mClient.write(buffer, length);
        if (traitsOf(level).flush) {
            mClient.flush();
        }
    }
    mSignal(level, line, length);
}

int32_t LoggerImpl::dumpHex(const void* data, int32_t size) {
    static constexpr Orbel::SourceName kSource(__FILE__);
    constexpr int32_t kRow = 16;
    if (data == nullptr) {
        return 0;
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (int32_t offset = 0; offset < size; offset += kRow) {
        const int32_t count = std::min(kRow, size - offset);
        char text[256];
        int at = std::snprintf(text, sizeof text, "%p: ", static_cast<const void*>(bytes + offset));
        for (int32_t i = 0; i < kRow; ++i) {
            const auto left = sizeof text - static_cast<size_t>(at);
            at += i < count ? std::snprintf(text + at, left, "%02x ", bytes[offset + i])
                            : std::snprintf(text + at, left, "   ");
        }
        text[at++] = ' ';
        text[at++] = ' ';
        for (int32_t i = 0; i < count; ++i) {
            const unsigned char byte = bytes[offset + i];
            // 122, not 126: what stands above 'z' prints as a dot.
            text[at++] = byte >= 32 && byte <= 122 ? static_cast<char>(byte) : '.';
        }
        text[at] = '\0';
        print(kInfo, "Orbel", "[%s:%d] %s \n", kSource.name, __LINE__, text);
        if (offset != 0 && offset % 512 == 0) {
            print(kInfo, "Orbel", "[%s:%d] \n", kSource.name, __LINE__);
        }
        if (size - offset <= kRow) {
            break;  // the offset behind the last row may not fit
        }
    }
    return 0;
}

}  // namespace Vantel
