#include "Vantel/Log/ILogClient.h"

#include "log/LogClientImpl.h"

namespace Vantel::Log {

// Alone in its source: a test that brings a client of its own defines this itself.
ILogClient* ILogClient::instance() {
    static auto* const client = new LogClientImpl;  // never destroyed: its poller runs on
    return client;
}

}  // namespace Vantel::Log
