#pragma once

#include <cstdint>

namespace Vantel::Orbel {

/// How a transport operation ended. A plain socket answers kWantRead to reads and kWantWrite to
/// writes only; an encrypted one may need the other direction.
enum class TransportStatus : int32_t {
    kOk = 0,         ///< done; `bytes` says how much
    kWantRead = 1,   ///< cannot go on until the descriptor is readable
    kWantWrite = 2,  ///< cannot go on until the descriptor is writable
    kClosed = 3,     ///< the peer ended the stream
    kError = 4,      ///< failed; `error` says why
};

/// The outcome of one transport operation.
struct TransportResult {
    TransportStatus status = TransportStatus::kOk;  ///< says how to take the other two
    int64_t bytes = 0;  ///< -1 where nothing was transferred because of the status
    int32_t error = 0;  ///< an errno value or 0
};

}  // namespace Vantel::Orbel
