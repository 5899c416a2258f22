#pragma once

#include <string>

namespace Vantel::Orbel {

/// Bytes of the receive buffer of an accepted and the send buffer of a made connection: room for
/// a few hundred control messages.
constexpr int kNodeSocketBufferBytes = 32768;

/// Where a node is reached: its server and the proxies of the others build it from the same names.
inline std::string nodeSocketPath(const std::string& domainName, const std::string& nodeName) {
    return "/tmp/shmipc_" + domainName + "_" + nodeName + ".socket";
}

}  // namespace Vantel::Orbel
