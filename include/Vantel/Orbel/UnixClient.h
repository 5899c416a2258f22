#pragma once

#include <string>

#include "Vantel/Export.h"
#include "Vantel/Orbel/StreamClient.h"

namespace Vantel::Orbel {

/// A StreamClient for Unix domain addresses.
class ORBEL_API UnixClient : public StreamClient {
public:
    /// As StreamClient.
    UnixClient(EventLoop* loop, const std::string& name);
    ~UnixClient() override;

    /// Unix addresses.
    bool checkServerAddress(const InetAddress& addr) const override;
};

}  // namespace Vantel::Orbel
