#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Vantel::Orbel {

/// The copies between private memory and a payload in a segment that a sequence lock guards: both
/// sides may run at once, and the reader throws away what it got then.
///
/// They go word by word, each word released when stored and acquired when loaded (plain moves on
/// x86-64). That stands for the fences of a sequence lock: what the writer stored before the
/// payload (its mark "being written") is seen by whoever sees a word of it, and the reader's second
/// look at the mark cannot come before its copy. So a torn copy never passes for a whole one.
///
/// The shared side is at least 4-byte aligned, the private one need not be aligned at all.
class OrderedCopy {
public:
    static void toShared(void* shared, const void* from, size_t sizeBytes) {
        inWords(static_cast<std::byte*>(shared), sizeBytes, [&](auto* word, size_t at) {
            std::remove_pointer_t<decltype(word)> value;
            std::memcpy(&value, static_cast<const std::byte*>(from) + at, sizeof value);
            __atomic_store_n(word, value, __ATOMIC_RELEASE);
        });
    }

    static void fromShared(void* to, const void* shared, size_t sizeBytes) {
        auto* words = static_cast<std::byte*>(const_cast<void*>(shared));
        inWords(words, sizeBytes, [&](auto* word, size_t at) {
            const auto value = __atomic_load_n(word, __ATOMIC_ACQUIRE);
            std::memcpy(static_cast<std::byte*>(to) + at, &value, sizeof value);
        });
    }

private:
    template <class Move>
    static void inWords(std::byte* shared, size_t sizeBytes, Move&& move) {
        size_t at = 0;
        if (reinterpret_cast<uintptr_t>(shared) % sizeof(uint64_t) != 0 &&
            sizeBytes >= sizeof(uint32_t)) {
            move(reinterpret_cast<uint32_t*>(shared), size_t{0});
            at = sizeof(uint32_t);
        }
        for (; at + sizeof(uint64_t) <= sizeBytes; at += sizeof(uint64_t)) {
            move(reinterpret_cast<uint64_t*>(shared + at), at);
        }
        for (; at < sizeBytes; ++at) {
            move(reinterpret_cast<uint8_t*>(shared + at), at);
        }
    }
};

}  // namespace Vantel::Orbel
