#pragma once

#include <cstdint>
#include <string>

#include "Vantel/Export.h"
#include "Vantel/Orbel/StreamClient.h"

namespace Vantel::Orbel {

/// A StreamClient for IPv4 and IPv6 addresses.
class ORBEL_API TcpClient : public StreamClient {
public:
    /// As StreamClient.
    TcpClient(EventLoop* loop, const std::string& name);
    ~TcpClient() override;

    using StreamClient::connect;
    /// Resolves `host` first, which may block for as long as the resolver takes; false if it has
    /// no address of the wanted family.
    bool connect(const std::string& host, uint16_t port, int32_t timeoutMs, bool ipv6);

    /// IPv4 and IPv6 addresses.
    bool checkServerAddress(const InetAddress& addr) const override;
};

}  // namespace Vantel::Orbel
