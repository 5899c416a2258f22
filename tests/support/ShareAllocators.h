#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "memory/share/MemoryRefer.h"

namespace OrbelTest {

/// The allocators of a shared pool over two areas of memory, zones laid out as in the segments.
/// The mutexes are a process's only ones: one object at a time in a process.
class ShareAllocators {
public:
    static uint32_t metadataSize(Vantel::Memory::BuddyConfig config) {
        return kBuddyZone + buddyZoneSize(config);
    }

    /// With `fresh` the areas hold zeros, and the zones are made.
    ShareAllocators(Vantel::Memory::BuddyConfig config, void* metadata, void* data, bool fresh)
        : mMetadata(static_cast<uint8_t*>(metadata)) {
        using namespace Vantel::Memory;
        if (fresh) {
            zone(0)->size = kMutexZoneSize;
            zone(kReferZone)->size = kReferZoneSize;
            zone(kSmallMemZone)->size = kSmallMemZoneSize;
            zone(kBuddyZone)->size = buddyZoneSize(config);
        }
        mReady = initProcessMutex(zone(0)) == 0 &&
                 createBuddy(config, zone(kBuddyZone), static_cast<uint8_t*>(data), &buddy) == 0 &&
                 createSmallMem(zone(kSmallMemZone), buddy, &smallMem) == 0 &&
                 createMemRefer(zone(kReferZone), smallMem, buddy, &refer) == 0;
    }
    ShareAllocators(const ShareAllocators&) = delete;
    ShareAllocators& operator=(const ShareAllocators&) = delete;
    ~ShareAllocators() {
        if (refer != nullptr) {
            refer->destroy(refer);
        }
        if (smallMem != nullptr) {  // its own destroy ends the process
            free(smallMem->internal);
            free(smallMem);
        }
        if (buddy != nullptr) {
            buddy->destroy(buddy);
        }
    }

    bool ready() const { return mReady; }
    Vantel::Memory::ZoneHead* buddyZone() const { return zone(kBuddyZone); }
    size_t freeSize() const { return buddy->getFreeSize(buddy); }

    /// A block of shared memory, null if there is none, and its way back.
    void* take(int32_t size) const { return buddy->malloc(buddy, &size); }
    int32_t give(void* block) const { return buddy->free(buddy, block); }
    int32_t offsetOf(void* block) const {
        int32_t offset = -1;
        return buddy->getOffset(buddy, block, &offset) == 0 ? offset : -1;
    }

    Vantel::Memory::Buddy* buddy = nullptr;
    Vantel::Memory::SmallMemory* smallMem = nullptr;
    Vantel::Memory::MemoryRefer* refer = nullptr;

private:
    static constexpr uint32_t kReferZone = Vantel::Memory::kMutexZoneSize;
    static constexpr uint32_t kSmallMemZone = kReferZone + Vantel::Memory::kReferZoneSize;
    static constexpr uint32_t kBuddyZone = kSmallMemZone + Vantel::Memory::kSmallMemZoneSize;

    static uint32_t buddyZoneSize(Vantel::Memory::BuddyConfig config) {
        return static_cast<uint32_t>(Vantel::Memory::getBuddyZoneSize(config)) +
               static_cast<uint32_t>(sizeof(Vantel::Memory::ZoneHead));
    }
    Vantel::Memory::ZoneHead* zone(uint32_t offset) const {
        return reinterpret_cast<Vantel::Memory::ZoneHead*>(mMetadata + offset);
    }

    uint8_t* mMetadata;
    bool mReady = false;
};

/// Takes and gives blocks of random sizes and marks each throughout with a word of its own: false
/// if one was changed by another holder. All are given back at the end.
inline bool takeAndGiveAtRandom(const ShareAllocators& pool, uint32_t seed, int steps) {
    struct Block {
        uint8_t* memory;
        int32_t size;
        uint32_t mark;
    };
    std::mt19937 random(seed);
    std::vector<Block> held;
    bool whole = true;
    const auto giveOne = [&](size_t which) {
        const Block block = held[which];
        for (int32_t i = 0; i < block.size; i += 512) {
            whole = whole && std::memcmp(block.memory + i, &block.mark, sizeof block.mark) == 0;
        }
        pool.buddy->free(pool.buddy, block.memory);
        held[which] = held.back();
        held.pop_back();
    };
    for (int step = 0; step < steps; ++step) {
        int32_t size = static_cast<int32_t>(random() % 20000 + 1);
        if (held.size() < 12 && random() % 2 == 0) {
            if (void* memory = pool.buddy->malloc(pool.buddy, &size)) {
                const auto mark = static_cast<uint32_t>(random());
                held.push_back({static_cast<uint8_t*>(memory), size, mark});
                for (int32_t i = 0; i < size; i += 512) {
                    std::memcpy(held.back().memory + i, &mark, sizeof mark);
                }
            }
        } else if (!held.empty()) {
            giveOne(random() % held.size());
        }
    }
    while (!held.empty()) {
        giveOne(0);
    }
    return whole;
}

}  // namespace OrbelTest
