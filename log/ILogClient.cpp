#include "log/ILogClient.h"

#include "log/NullLogClient.h"

namespace Vantel::Log {

// Alone in its source: a test that brings a client of its own defines this itself.
ILogClient* ILogClient::instance() {
    static auto* const client = new NullLogClient;  // never destroyed, as the logger
    return client;
}

}  // namespace Vantel::Log
