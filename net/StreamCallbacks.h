#pragma once

#include "Vantel/Orbel/StreamConnection.h"

namespace Vantel::Orbel {

/// The seven callbacks of a stream connection, handed on as a whole from client or server to each
/// of its connections. Empty ones are not called.
struct StreamCallbacks {
    StreamConnectionCallback connection;
    StreamMessageCallback message;
    StreamConnectionCallback readable;
    StreamConnectionCallback writable;
    StreamConnectionCallback writeComplete;
    StreamErrorCallback error;
    StreamConnectionCallback close;
};

}  // namespace Vantel::Orbel
