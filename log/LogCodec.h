#pragma once

#include <cstdint>
#include <string>

#include "Vantel/Log/LogPacket.h"
#include "Vantel/Orbel/Buffer.h"

namespace Vantel::Log {

/// Builds the packets of the client. A builder sizes `packet` and fills it; it returns the size of
/// the packet, -1 without memory.
class LogCodec {
public:
    static constexpr int kHeaderSize = sizeof(LogPacketHeader);

    static int buildRegister(Orbel::Buffer& packet, const std::string& moduleName, int processId);
    /// Header and room for `size` bytes of text, which the caller writes at kHeaderSize.
    static int buildLine(Orbel::Buffer& packet, int size);
    static int buildFlush(Orbel::Buffer& packet);
    static int buildSubscribe(Orbel::Buffer& packet, const std::string& moduleName);
    static int buildNotify(Orbel::Buffer& packet);
    static int buildText(Orbel::Buffer& packet, const std::string& text);

    /// Writes a header into the first kHeaderSize bytes of `bytes`, which need no alignment.
    static void writeHeader(void* bytes, LogCommand command, int size);
};

}  // namespace Vantel::Log
