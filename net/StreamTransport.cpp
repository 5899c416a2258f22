#include "Vantel/Orbel/StreamTransport.h"

#include <algorithm>
#include <cerrno>

namespace Vantel::Orbel {

StreamTransport::~StreamTransport() = default;

bool StreamTransport::needsHandshake() const {
    return false;
}

TransportResult StreamTransport::handshake() {
    return {};
}

TransportResult StreamTransport::writev(const iovec* vectors, int count, int flags) {
    if (vectors == nullptr && count > 0) {
        return {TransportStatus::kError, -1, EINVAL};
    }
    int64_t total = 0;
    for (int i = 0; i < count; ++i) {
        TransportResult result = write(vectors[i].iov_base, vectors[i].iov_len, flags);
        if (result.status != TransportStatus::kOk) {
            if (total > 0) {
                result.bytes = total;
            }
            return result;
        }
        total += std::max<int64_t>(result.bytes, 0);
        if (result.bytes < static_cast<int64_t>(vectors[i].iov_len)) {
            break;
        }
    }
    return {TransportStatus::kOk, total, 0};
}

bool StreamTransport::supportsRawRead() const {
    return true;
}

bool StreamTransport::supportsRawWrite() const {
    return true;
}

}  // namespace Vantel::Orbel
