// A process of the shared pool that does what it is told, one line at a time, and answers each with
// one line. Packets are named by the order in which they were made here.
//
//     create DATA PAGE MODE | attach          yes, no
//     attachSlowly N                          "attaching" before it looks for the data segment the
//                                             Nth time; then, after another line, yes, no
//     packet SIZE EXTRA                       the packet's name, or "invalid"
//     claim HEX [OFFSET VALUE]                likewise; with a word of the description forged
//     describe PACKET                         HEX, or "invalid"
//     text PACKET | extra PACKET
//     write PACKET TEXT | drop PACKET      done
//     free                                    bytes free in the pool
//     release                                 lets go of the pool, which ends the process
//     guard SIZE                              yes, no: a block of the pool itself
//     poke OFFSET | unguard                   done: writes a byte there; gives the block back

#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Vantel/Memory/InitializeMemory.h"
#include "Vantel/Memory/Packet.h"
#include "Vantel/Memory/ShareMemoryManager.h"
#include "Vantel/Memory/SharePacket.h"

using namespace Vantel::Memory;

namespace {

constexpr key_t kDataKey = 0x111115AD;

std::vector<Packet> packets;
uint8_t* guarded = nullptr;
int lookUpsToPause = 0;  // of the data segment

void freeBytes(void* bytes, unsigned long, unsigned char*) {
    free(bytes);
}

std::string keep(const Packet& packet) {
    if (!packet.valid()) {
        return "invalid";
    }
    packets.push_back(packet);
    return std::to_string(packets.size() - 1);
}

std::string initial(std::istream& in, uint32_t role) {
    SharePacket::Param param{};
    param.role = role;
    in >> param.dataSize >> param.pageSize >> param.debugMode;
    return SharePacket::instance()->initialPacket(&param) ? "yes" : "no";
}

std::string makePacket(int size, int extraSize) {
    Packet packet(size, extraSize);
    if (packet.valid()) {
        std::string text = "packet " + std::to_string(packets.size());
        packet.putBuffer(text.data(), static_cast<int>(text.size()));
        if (extraSize > 0) {
            memset(packet.getExtraData(), 'x', static_cast<size_t>(extraSize));
        }
    }
    return keep(packet);
}

std::string describe(const Packet& packet) {
    const Packet description = SharePacket::instance()->convertDescribe(packet);
    std::string hex;
    for (int i = 0; i < description.size(); ++i) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", description.getBuffer()[i]);
        hex += digits;
    }
    return description.valid() ? hex : "invalid";
}

std::string claim(std::istream& in) {
    std::string hex;
    in >> hex;
    const size_t length = hex.size() / 2;
    auto* bytes = static_cast<uint8_t*>(malloc(length));
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
    }
    size_t offset = 0;
    uint32_t value = 0;
    if (in >> offset >> value) {
        memcpy(bytes + offset, &value, sizeof value);
    }
    const Packet description(bytes, static_cast<int>(length), Packet::FreeFunction(&freeBytes));
    const Packet packet = SharePacket::instance()->convertOriginal(description);
    return packet.getBuffer() == bytes ? "unchanged" : keep(packet);
}

std::string freeSize() {
    uint32_t size = 0;
    ShareMemoryManager::instance()->getMemFreeSize(size);
    return std::to_string(size);
}

std::string onPacket(const std::string& word, std::istream& in) {
    size_t number = 0;
    std::string text;
    in >> number >> text;
    Packet& packet = packets.at(number);
    if (word == "describe") {
        return describe(packet);
    }
    if (word == "text") {
        return {reinterpret_cast<char*>(packet.getBuffer()), static_cast<size_t>(packet.size())};
    }
    if (word == "extra") {
        return {static_cast<char*>(packet.getExtraData()),
                static_cast<size_t>(packet.getExtraSize())};
    }
    if (word == "write") {
        memcpy(packet.getBuffer(), text.data(), text.size());
    } else if (word == "drop") {
        packet.reset();
    }
    return "done";
}

std::string guardedBlock(const std::string& word, std::istream& in) {
    int number = 0;
    in >> number;
    ShareMemoryPool* pool = ShareMemoryManager::instance()->getMemPool();
    if (word == "guard") {
        int32_t size = number;
        guarded = static_cast<uint8_t*>(pool->malloc(size));
        return guarded != nullptr && size == number ? "yes" : "no";
    }
    if (word == "poke") {
        const_cast<volatile uint8_t*>(guarded)[number] = 1;
    } else {
        pool->free(guarded);
    }
    return "done";
}

std::string answer(const std::string& line) {
    std::istringstream in(line);
    std::string word;
    in >> word;
    if (word == "create" || word == "attach") {
        return initial(in, word == "create" ? 1 : 0);
    }
    if (word == "attachSlowly") {
        in >> lookUpsToPause;
        return initial(in, 0);
    }
    if (word == "packet") {
        int size = 0;
        int extraSize = 0;
        in >> size >> extraSize;
        return makePacket(size, extraSize);
    }
    if (word == "claim") {
        return claim(in);
    }
    if (word == "free") {
        return freeSize();
    }
    if (word == "release") {
        ShareMemoryManager::instance()->releaseMemPool();
    }
    if (word == "guard" || word == "poke" || word == "unguard") {
        return guardedBlock(word, in);
    }
    return onPacket(word, in);
}

}  // namespace

/// In place of the C library's.
extern "C" int shmget(key_t key, size_t size, int flags) noexcept {
    if (key == kDataKey && lookUpsToPause > 0 && --lookUpsToPause == 0) {
        std::cout << "attaching" << std::endl;
        std::string line;
        std::getline(std::cin, line);
    }
    return static_cast<int>(syscall(SYS_shmget, key, size, flags));
}

int main() {
    initializeMemory(policyShare, nullptr, nullptr);
    for (std::string line; std::getline(std::cin, line);) {
        std::cout << answer(line) << std::endl;
    }
}
