#include "memory/share/ShareDescription.h"

#include <cstring>

#include "frame/base/Log.h"

namespace Vantel::Memory {

bool readShareDescription(const void* bytes, int len, ShareDescription& head) {
    if (bytes == nullptr || (len >= 0 && static_cast<size_t>(len) < sizeof head)) {
        ORBEL_LOG_ERROR("arg is invalid.\n");
        return false;
    }
    if (len < 0) {
        ORBEL_LOG_ERROR("len invalid.\n");
        return false;
    }
    // Copied out once: the sender may go on writing where the bytes are.
    std::memcpy(&head, bytes, sizeof head);
    if (head.magic != kShareHeadMagic) {
        ORBEL_LOG_ERROR("magic head is invalid.\n");
        return false;
    }
    // In 64 bits: each of these words may be anything.
    const auto whole = static_cast<uint64_t>(len);
    if (whole < uint64_t{head.tailOffset} + sizeof kShareTailMagic ||
        head.tailOffset != sizeof head + uint64_t{head.extraSize}) {
        ORBEL_LOG_ERROR("len invalid.\n");
        return false;
    }
    uint32_t tail = 0;
    std::memcpy(&tail, static_cast<const uint8_t*>(bytes) + head.tailOffset, sizeof tail);
    if (tail != kShareTailMagic) {
        ORBEL_LOG_ERROR("magic tail is invalid.\n");
        return false;
    }
    return true;
}

}  // namespace Vantel::Memory
