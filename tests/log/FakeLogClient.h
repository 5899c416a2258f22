#pragma once

#include <json/json.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/NullLogClient.h"

namespace OrbelTest {

/// A log client that keeps what it is given.
class FakeLogClient : public NullLogClient {
public:
    bool init(const Json::Value& config) override {
        configs.push_back(config);
        return works;
    }
    bool setGcoreCallback(GcoreCallback callback, void*) override {
        crash = callback;
        return true;
    }
    bool setLogLevel(int value) override {
        level = value;
        return true;
    }
    int getLogLevel() override { return level; }
    int print(int lineLevel, const char* format, ...) override
        __attribute__((format(printf, 3, 4))) {
        std::string text(20000, '\0');
        va_list arguments;
        va_start(arguments, format);
        text.resize(static_cast<size_t>(vsnprintf(text.data(), text.size(), format, arguments)));
        va_end(arguments);
        prints.emplace_back(lineLevel, text);
        return 77;
    }
    int write(char* buffer, int size) override {
        const std::lock_guard guard(mMutex);
        lines.emplace_back(buffer + 44, static_cast<size_t>(size));
        return size + 44;
    }
    bool flush() override {
        const std::lock_guard guard(mMutex);
        ++flushes;
        return works;
    }

    bool works = false;
    std::vector<Json::Value> configs;
    GcoreCallback crash = nullptr;
    int level = 3;
    std::vector<std::pair<int, std::string>> prints;
    std::vector<std::string> lines;
    int flushes = 0;

private:
    std::mutex mMutex;
};

}  // namespace OrbelTest
