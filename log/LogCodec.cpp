#include "log/LogCodec.h"

#include <algorithm>
#include <cstring>

namespace Vantel::Log {

namespace {

/// Sizes `packet` to a header and `size` bytes, and writes the header.
int build(Orbel::Buffer& packet, LogCommand command, int size) {
    const int whole = packet.resize(LogCodec::kHeaderSize + size);
    if (whole < 0) {
        return -1;
    }
    LogCodec::writeHeader(packet.data(), command, size);
    return whole;
}

template <class Payload>
int build(Orbel::Buffer& packet, LogCommand command, const Payload& payload) {
    const int whole = build(packet, command, static_cast<int>(sizeof payload));
    if (whole >= 0) {
        std::memcpy(packet.data(LogCodec::kHeaderSize), &payload, sizeof payload);
    }
    return whole;
}

/// The last byte is a name's too: a field of the wire needs no terminator.
template <size_t N>
void fillField(char (&field)[N], const std::string& text) {
    std::memcpy(field, text.c_str(), std::min(strlen(text.c_str()), N));
}

}  // namespace

void LogCodec::writeHeader(void* bytes, LogCommand command, int size) {
    LogPacketHeader header = {};
    header.magic = kLogPacketMagic;
    header.cmd = static_cast<uint32_t>(command);
    header.size = size;
    std::memcpy(bytes, &header, sizeof header);
}

int LogCodec::buildRegister(Orbel::Buffer& packet, const std::string& moduleName, int processId) {
    LogRegistration registration = {};
    fillField(registration.moduleName, moduleName);
    registration.processId = processId;
    return build(packet, LogCommand::Register, registration);
}

int LogCodec::buildLine(Orbel::Buffer& packet, int size) {
    return build(packet, LogCommand::Line, size);
}

int LogCodec::buildFlush(Orbel::Buffer& packet) {
    return build(packet, LogCommand::Flush, 0);
}

int LogCodec::buildSubscribe(Orbel::Buffer& packet, const std::string& moduleName) {
    LogSubscription subscription = {};
    fillField(subscription.moduleName, moduleName);
    return build(packet, LogCommand::Subscribe, subscription);
}

int LogCodec::buildNotify(Orbel::Buffer& packet) {
    return build(packet, LogCommand::Notify, 0);
}

int LogCodec::buildText(Orbel::Buffer& packet, const std::string& text) {
    LogText payload = {};
    fillField(payload.text, text);
    return build(packet, LogCommand::Text, payload);
}

}  // namespace Vantel::Log
