#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Memory {

class Packet;

/// Packets in shared memory: under memory policy 4 each Packet(size, extraSize) lies in the pool of
/// the machine, and its description, a packet of 84 bytes and the extra data, can be sent to
/// another process by any means, which reads the same bytes in place. Nothing is copied.
///
///     initializeMemory(policy 4, nullptr, nullptr), initialPacket(&param);
///     sender:   Packet packet(size, 0); packet.putBuffer(...);
///               Packet description = convertDescribe(packet);  send its getBuffer(), size()
///     receiver: Packet packet = convertOriginal(Packet(bytes, size, freeFn));
///
/// The bytes of a description: docs/formats.md, `ShareDescription`.
///
/// Threads: initialPacket() once, before the rest; the conversions from any thread. A packet is
/// filled by one thread before it is handed on.
class ORBEL_API SharePacket {
public:
    /// How initialPacket() comes to the pool. The sizes are for role 1.
    struct Param {
        uint32_t poolType;   ///< 0, the only kind
        uint32_t role;       ///< 0: attach to the pool of the machine; 1: create it
        uint32_t dataSize;   ///< bytes of the data segment
        uint32_t pageSize;   ///< bytes, a power of two from 1024 to 4096; more counts as 4096
        uint32_t orderNum;   ///< limits blocks to 2^(orderNum - 1) pages; 0: no limit
        uint32_t debugMode;  ///< see ShareMemoryPool::Param; packets need 0
    };

    /// Holds nothing itself: the pool outlives it.
    static SharePacket* instance();

    /// Creates the pool or attaches to it. False, with an error line, on failure; error number 1
    /// for a null `param` and an unknown role or kind.
    bool initialPacket(Param* param);

    /// The description of a shared packet, with the bytes in the process heap. Each one made is
    /// for one convertOriginal(): until then it keeps the block alive, for two rounds of cleaning
    /// (about two seconds). Invalid for an invalid packet and on failure. Under another policy:
    /// error number 1, and the result is `packet`.
    Packet convertDescribe(const Packet& packet);

    /// The shared packet that a description stands for, held by this process, the extra data in a
    /// copy on the heap. A packet that is no description comes back as it is; a description whose
    /// block is gone or that contradicts the pool gives an invalid packet. Under another policy:
    /// error number 1, and the result is `packet`.
    Packet convertOriginal(const Packet& packet);

private:
    SharePacket() = default;
    ~SharePacket() = default;
};

}  // namespace Vantel::Memory
