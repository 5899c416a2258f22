#include "log/NullLogClient.h"

namespace Vantel::Log {

bool NullLogClient::init(const Json::Value& /*config*/) {
    return false;
}

bool NullLogClient::deinit() {
    return false;
}

bool NullLogClient::setGcoreCallback(GcoreCallback /*callback*/, void* /*user*/) {
    return false;
}

bool NullLogClient::setLogLevel(int level) {
    mLogLevel.store(level, std::memory_order_relaxed);
    return true;
}

int NullLogClient::getLogLevel() {
    return mLogLevel.load(std::memory_order_relaxed);
}

int NullLogClient::print(int /*level*/, const char* /*format*/, ...) {
    return 0;
}

int NullLogClient::headerSize() {
    return 44;
}

int NullLogClient::write(char* /*buffer*/, int /*size*/) {
    return 0;
}

bool NullLogClient::flush() {
    return false;
}

bool NullLogClient::notifyServer() {
    return false;
}

bool NullLogClient::setRecvCallback(RecvCallback /*callback*/, void* /*user*/) {
    return false;
}

}  // namespace Vantel::Log
