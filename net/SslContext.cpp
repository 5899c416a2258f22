#include "Vantel/Orbel/SslContext.h"

#include <cerrno>
#include <utility>

#include "Vantel/Orbel/SslEngine.h"
#include "Vantel/Orbel/SslStreamTransport.h"
#include "Vantel/Orbel/StreamSocket.h"

namespace Vantel::Orbel {

SslContext::~SslContext() = default;

std::unique_ptr<StreamTransport> SslContext::createTransport(std::unique_ptr<StreamSocket> socket) {
    if (!socket || socket->fd() < 0) {
        errno = EINVAL;
        return nullptr;
    }
    std::unique_ptr<SslEngine> engine = createEngine(*socket);
    if (!engine) {
        return nullptr;
    }
    return std::make_unique<SslStreamTransport>(std::move(socket), std::move(engine));
}

}  // namespace Vantel::Orbel
