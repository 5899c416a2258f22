#include "Vantel/Utils/Checksum.h"

#include <array>
#include <bit>
#include <cstring>

namespace Vantel::Utils {

namespace {

template <class Word>
constexpr std::array<Word, 256> byteTable(Word polynomial) {
    std::array<Word, 256> table{};
    for (unsigned byte = 0; byte < 256; ++byte) {
        auto rest = static_cast<Word>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            rest = static_cast<Word>(rest >> 1 ^ ((rest & 1) != 0 ? polynomial : 0));
        }
        table[byte] = rest;
    }
    return table;
}

constexpr auto kCrc16 = byteTable<uint16_t>(0xA001);

/// Table n holds the effect of a byte that n further bytes follow: eight bytes then take eight
/// look-ups that do not wait for each other.
constexpr auto kCrc32 = [] {
    std::array<std::array<uint32_t, 256>, 8> tables{byteTable<uint32_t>(0xEDB88320)};
    for (size_t n = 1; n < tables.size(); ++n) {
        for (size_t byte = 0; byte < 256; ++byte) {
            const uint32_t before = tables[n - 1][byte];
            tables[n][byte] = before >> 8 ^ tables[0][before & 0xff];
        }
    }
    return tables;
}();

}  // namespace

uint16_t crc16(uint16_t crc, const uint8_t* data, size_t size) {
    for (size_t i = 0; data != nullptr && i < size; ++i) {
        crc = static_cast<uint16_t>(crc >> 8 ^ kCrc16[(crc ^ data[i]) & 0xff]);
    }
    return crc;
}

uint32_t crc32(const uint8_t* data, size_t size) {
    return crc32(0, data, size);
}

uint32_t crc32(uint32_t crc, const uint8_t* data, size_t size) {
    if (data == nullptr) {
        return crc;
    }
    crc = ~crc;
    if constexpr (std::endian::native == std::endian::little) {
        for (; size >= 8; size -= 8, data += 8) {
            uint64_t word = 0;
            std::memcpy(&word, data, sizeof word);
            word ^= crc;
            crc = 0;
            for (size_t i = 0; i < 8; ++i) {
                crc ^= kCrc32[7 - i][word >> (8 * i) & 0xff];
            }
        }
    }
    for (; size > 0; --size, ++data) {
        crc = crc >> 8 ^ kCrc32[0][(crc ^ *data) & 0xff];
    }
    return ~crc;
}

}  // namespace Vantel::Utils
