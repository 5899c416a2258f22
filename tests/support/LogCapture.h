#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Vantel/ILogger.h"
#include "tests/support/WithoutLogServer.h"

namespace OrbelTest {

/// Collects the lines that this process logs while the object lives. The first one sets the logger
/// up (there is no way back in a process) and silences its own sinks.
class LogCapture {
public:
    LogCapture() {
        Vantel::ILogger* logger = Vantel::ILogger::instance();
        logger->init("test", 4096);
        logger->setOutput(0);
        logger->attach({this, &LogCapture::onLine});
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { Vantel::ILogger::instance()->detach({this, &LogCapture::onLine}); }

    /// How many lines so far hold `text`.
    int count(const std::string& text) const {
        std::lock_guard<std::mutex> guard(mMutex);
        int found = 0;
        for (const auto& line : mLines) {
            found += line.second.find(text) != std::string::npos ? 1 : 0;
        }
        return found;
    }
    bool has(const std::string& text) const { return count(text) > 0; }

    std::vector<std::pair<int, std::string>> lines() const {
        std::lock_guard<std::mutex> guard(mMutex);
        return mLines;
    }

private:
    void onLine(Vantel::ILogger::LoggerLevel level, const char* line, int length) {
        std::lock_guard<std::mutex> guard(mMutex);
        mLines.emplace_back(static_cast<int>(level),
                            std::string(line, static_cast<size_t>(length)));
    }

    mutable std::mutex mMutex;
    std::vector<std::pair<int, std::string>> mLines;
};

}  // namespace OrbelTest
