#include "net/ConnectionSettings.h"

#include <cerrno>
#include <utility>

#include "Vantel/Orbel/PlainStreamTransport.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/StreamSocket.h"

namespace Vantel::Orbel {

std::shared_ptr<StreamConnection> ConnectionSettings::makeConnection(
    EventLoop* loop, const std::string& name, std::unique_ptr<StreamSocket> socket) const {
    std::unique_ptr<StreamTransport> transport;
    if (transportFactory) {
        errno = 0;
        transport = transportFactory(std::move(socket));
    } else {
        transport = std::make_unique<PlainStreamTransport>(std::move(socket));
    }
    if (!transport) {
        errno = errno != 0 ? errno : EINVAL;
        return nullptr;
    }
    auto connection = std::make_shared<StreamConnection>(loop, name, std::move(transport));
    connection->setMaxInputBufferSize(maxInputBufferSize);  // both ignore 0
    connection->setMaxOutputBufferSize(maxOutputBufferSize);
    connection->setCallbacks(callbacks);
    return connection;
}

}  // namespace Vantel::Orbel
