#pragma once

#include <cstdint>

/// What share_packet_sender tells of a frame, in the extra data of its packet, which travels with
/// the description. Sender and reader are built from this one definition; plain fields.
struct FrameInfo {
    uint32_t number;    ///< 1, 2, 3, ...
    uint32_t checksum;  ///< CRC-32 of the payload
};

/// Bytes of the description of such a packet.
constexpr int kDescriptionBytes = 84 + sizeof(FrameInfo);
