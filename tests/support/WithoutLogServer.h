#pragma once

#include "tests/support/NullLogClient.h"

// A program that includes this has a logger without a link to a server, in place of the library's:
// it waits for none at its start, two seconds long, and keeps the default action of its signals.
// (Used by the library alone, so the compiler has to be told.)
namespace Vantel::Log {

[[gnu::used]] inline ILogClient* ILogClient::instance() {
    static auto* const client = new OrbelTest::NullLogClient;
    return client;
}

}  // namespace Vantel::Log
