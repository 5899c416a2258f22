// The shared pool within one process: what a block, a packet and the handing over of a packet cost.
// In an IPC namespace of its own, so that a live pool on the machine stays as it is.

#include <benchmark/benchmark.h>

#include <vector>

#include "Vantel/Memory/InitializeMemory.h"
#include "Vantel/Memory/Packet.h"
#include "Vantel/Memory/ShareMemoryManager.h"
#include "Vantel/Memory/SharePacket.h"
#include "tests/support/PrivateIpc.h"

namespace {

using namespace Vantel::Memory;

constexpr int32_t kBlockBytes = 4096;

/// The pool of the process, null where there can be none.
ShareMemoryPool* pool(benchmark::State& state) {
    static ShareMemoryPool* const made = [] {
        SharePacket::Param param{0, 1, 64 << 20, 4096, 0, 0};
        initializeMemory(policyShare, nullptr, nullptr);
        return OrbelTest::enterPrivateIpc() && SharePacket::instance()->initialPacket(&param)
                   ? ShareMemoryManager::instance()->getMemPool()
                   : nullptr;
    }();
    if (made == nullptr) {
        state.SkipWithError("no pool, or no namespace for it");
    }
    return made;
}

/// Blocks that are in use beside what is measured: each is an entry of the list of references.
class Held {
public:
    Held(ShareMemoryPool* pool, long count) : mPool(pool) {
        for (long i = 0; mPool != nullptr && i < count; ++i) {
            int32_t size = kBlockBytes;
            mBlocks.push_back(mPool->malloc(size));
        }
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held() {
        for (void* block : mBlocks) {
            mPool->free(block);
        }
    }

private:
    ShareMemoryPool* mPool;
    std::vector<void*> mBlocks;
};

/// A block of the pool taken and given back, with `range(0)` others in use.
void allocateAndFree(benchmark::State& state) {
    ShareMemoryPool* const shared = pool(state);
    const Held held(shared, state.range(0));
    for (auto _ : state) {
        int32_t size = kBlockBytes;
        void* const block = shared->malloc(size);
        if (block == nullptr || !shared->free(block)) {
            state.SkipWithError("no block");
            break;
        }
    }
}
BENCHMARK(allocateAndFree)->Arg(0)->Arg(16)->Arg(256)->Arg(4096);

/// A packet made and dropped.
void packetCreation(benchmark::State& state) {
    pool(state);
    for (auto _ : state) {
        const Packet packet(kBlockBytes, 0);
        if (packet.capacity() != kBlockBytes) {
            state.SkipWithError("no packet");
            break;
        }
    }
}
BENCHMARK(packetCreation);

/// A packet of `range(0)` bytes described, claimed by its description, and the claim dropped: all
/// of the handing over but the way of the description.
void descriptionRoundTrip(benchmark::State& state) {
    pool(state);
    SharePacket& share = *SharePacket::instance();
    Packet packet(static_cast<int>(state.range(0)), 16);
    packet.resize(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        const Packet claimed = share.convertOriginal(share.convertDescribe(packet));
        if (claimed.getBuffer() != packet.getBuffer() || claimed.size() != packet.size()) {
            state.SkipWithError("another packet");
            break;
        }
    }
}
BENCHMARK(descriptionRoundTrip)->Arg(64)->Arg(1 << 20);

/// As before with the sender letting go first, so that each claim makes this process a holder
/// anew, as it does in another process.
void handOver(benchmark::State& state) {
    ShareMemoryPool* const shared = pool(state);
    const Held held(shared, state.range(0));
    SharePacket& share = *SharePacket::instance();
    for (auto _ : state) {
        Packet packet(kBlockBytes, 0);
        packet.resize(1);
        const Packet description = share.convertDescribe(packet);
        packet.reset();
        if (share.convertOriginal(description).size() != 1) {
            state.SkipWithError("lost");
            break;
        }
    }
}
BENCHMARK(handOver)->Arg(0)->Arg(256);

}  // namespace
