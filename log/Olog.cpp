#include "Vantel/Log/Olog.h"

#include <json/json.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <new>

#include "Vantel/Log/ILogClient.h"

using Vantel::Log::ILogClient;

namespace {

constexpr int kLongestText = 8192;

int resultOf(bool success) {
    return success ? 0 : -1;
}

}  // namespace

int ologInit(const char* appName, int level) {
    if (appName == nullptr) {
        std::printf("appName can not osNullptr\n");
        return -1;
    }
    Json::Value config;
    config["moduleName"] = appName;
    config["logLevel"] = level;
    if (!ILogClient::instance()->init(config)) {
        std::printf("logger client initial failed\n");
        return -1;
    }
    return 0;
}

int ologDeinit() {
    ILogClient::instance()->deinit();
    return 0;
}

int ologSetGcoreCallback(OlogGcoreCallback callback, void* user) {
    return resultOf(ILogClient::instance()->setGcoreCallback(callback, user));
}

int ologSetLogLevel(int level) {
    return resultOf(ILogClient::instance()->setLogLevel(level));
}

int ologGetLogLevel() {
    return ILogClient::instance()->getLogLevel();
}

int ologPrint(int level, const char* format, ...) {
    // Not on the stack: it would be half of the smallest thread's.
    const std::unique_ptr<char[]> text(new (std::nothrow) char[kLongestText]());
    if (text == nullptr || format == nullptr) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.get(), kLongestText, format, arguments);
    va_end(arguments);
    if (length > kLongestText) {  // a text of exactly that length loses a byte in silence
        std::printf("ologPrint limit %d byte\n", kLongestText);
    }
    return ILogClient::instance()->print(level, "%s", text.get());
}

int ologFlush() {
    return resultOf(ILogClient::instance()->flush());
}
