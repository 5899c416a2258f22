#pragma once

#include <cstddef>
#include <cstdint>

/// @file
/// What goes over the stream socket between a process and the log server of its machine: packets of
/// a header and `size` bytes of payload. Integers are in the byte order of the machine, on which
/// both ends run. For who writes a server; the library is the client.

namespace Vantel::Log {

/// Begins each packet; who finds another word has lost the place in the stream.
constexpr uint32_t kLogPacketMagic = 0xAA5555AA;
/// No packet of either end has a longer payload.
constexpr int32_t kMaxLogPayload = 0x100000;
/// Where servers listen and clients connect if nothing else is configured.
constexpr char kLogServerPath[] = "/tmp/logServer.sock";

/// What a packet is, and so what its payload holds.
enum class LogCommand : uint32_t {
    Register = 0,   ///< to the server: LogRegistration
    Line = 1,       ///< both ways: the text of a line, without terminator
    Flush = 2,      ///< to the server, no payload: write out what is held
    Subscribe = 3,  ///< to the server: LogSubscription; the module's lines come back as Line
    Notify = 4,     ///< to the server, no payload: its meaning is the server's
    Text = 5,       ///< both ways: LogText
};

/// Goes before each payload.
struct LogPacketHeader {
    uint32_t magic;        ///< kLogPacketMagic
    uint32_t cmd;          ///< LogCommand
    int32_t size;          ///< bytes of payload; the other end may send anything
    uint8_t reserved[32];  ///< zero
};
static_assert(sizeof(LogPacketHeader) == 44);
static_assert(offsetof(LogPacketHeader, magic) == 0 && offsetof(LogPacketHeader, cmd) == 4);
static_assert(offsetof(LogPacketHeader, size) == 8 && offsetof(LogPacketHeader, reserved) == 12);

/// The first packet of each connection: who the client is.
struct LogRegistration {
    char moduleName[128];  ///< without terminator if it is cut
    int32_t processId;     ///< as the client sees it
    uint8_t reserved[16];  ///< zero
};
static_assert(sizeof(LogRegistration) == 148 && offsetof(LogRegistration, processId) == 128);
static_assert(offsetof(LogRegistration, reserved) == 132);

/// One for each module whose lines the client wants.
struct LogSubscription {
    char moduleName[128];  ///< without terminator if it is cut
};
static_assert(sizeof(LogSubscription) == 128);

/// A text between server and application; what it means is theirs to agree on.
struct LogText {
    char text[256];  ///< without terminator if it is cut
};
static_assert(sizeof(LogText) == 256);

}  // namespace Vantel::Log
