// What a packet costs over its memory. The policy of the process is switched between the runs,
// which only works here: no packet lives on from one to the next.

#include "Vantel/Memory/Packet.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Vantel/Memory/CBipBuffer.h"
#include "Vantel/Memory/IMemoryPool.h"
#include "Vantel/Memory/InitializeMemory.h"
#include "memory/BuddyMemoryHandle.h"
#include "memory/MemoryManagerInternal.h"
#include "memory/SystemPacketHandle.h"

namespace {

using namespace Vantel::Memory;

void* systemMalloc(unsigned long size) {
    return std::malloc(size);
}
void systemFree(void* block) {
    std::free(block);
}
void* poolMalloc(unsigned long size) {
    return IMemoryPool::instance()->allocate(size);
}
void poolFree(void* block) {
    IMemoryPool::instance()->deallocate(block);
}
void* copyBytes(void* to, const void* from, unsigned long size) {
    return std::memcpy(to, from, size);
}

const MemoryParameter kParameter{64 * 1024 * 1024, 1024, 2};

struct Policy {
    const char* name;
    MemoryPolicy policy;
    MemoryOperator op;
};

const Policy kPolicies[] = {
    {"system", policySystem, {&systemMalloc, &systemFree, &copyBytes}},
    {"systemOnPool", policySystem, {&poolMalloc, &poolFree, &copyBytes}},
    {"buddy", policyBuddy, {&systemMalloc, &systemFree, &copyBytes}},
    {"buddySplit", policyBuddySplit, {&systemMalloc, &systemFree, &copyBytes}},
};

void use(const Policy& policy) {
    static std::unique_ptr<IMemoryHandle> handle;
    if (policy.policy == policySystem) {
        handle = std::make_unique<SystemPacketHandle>(policy.op, kParameter);
    } else {
        handle = std::make_unique<BuddyMemoryHandle>(policy.op, kParameter);
    }
    MemoryManagerInternal::instance().configure(policy.policy, kParameter.alignSize, handle.get());
}

/// A packet of range(0) bytes made and dropped.
void create(benchmark::State& state) {
    const auto size = static_cast<int>(state.range(0));
    for (auto _ : state) {
        const Packet packet(size, 0);
        if (packet.size() != size) {
            state.SkipWithError("no packet");
            break;
        }
        benchmark::DoNotOptimize(packet.getBuffer());
    }
}

/// What is under it: a block for the bytes and the record, taken and given back.
void mallocAlone(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0)) + 128;
    for (auto _ : state) {
        void* block = std::malloc(size);
        benchmark::DoNotOptimize(block);
        std::free(block);
    }
}
BENCHMARK(mallocAlone)->Arg(64)->Arg(4096)->Arg(65536);

/// A slice of 100 bytes of a packet made and dropped.
void slice(benchmark::State& state) {
    const Packet packet(4096, 0);
    for (auto _ : state) {
        const Packet part(packet, 1000, 100, 0);
        if (part.getBuffer() != packet.getBuffer() + 1000) {
            state.SkipWithError("another place");
            break;
        }
    }
}

/// A handle copied and dropped.
void copy(benchmark::State& state) {
    const Packet packet(4096, 0);
    for (auto _ : state) {
        const Packet other(packet);
        benchmark::DoNotOptimize(other.getBuffer());
    }
}

/// The caller's bytes made a packet.
void wrap(benchmark::State& state) {
    char bytes[64] = {};
    for (auto _ : state) {
        const Packet packet(bytes, sizeof bytes, Packet::FreeFunction());
        benchmark::DoNotOptimize(packet.getBuffer());
    }
}
BENCHMARK(wrap);

/// 100 bytes in and out of a bipartite ring of 4096.
void bipBuffer(benchmark::State& state) {
    CBipBuffer ring;
    ring.initial(4096);
    uint8_t bytes[100] = {};
    for (auto _ : state) {
        if (ring.offer(bytes, 100) != 100 || ring.poll(100) == nullptr) {
            state.SkipWithError("stuck");
            break;
        }
    }
}
BENCHMARK(bipBuffer);

const int registered = [] {
    for (const Policy& policy : kPolicies) {
        const auto add = [&policy](const char* name, void (*function)(benchmark::State&)) {
            return benchmark::RegisterBenchmark((std::string(name) + "/" + policy.name).c_str(),
                                                function)
                ->UseRealTime();
        };
        // Setup takes a plain function: one for each policy.
        static constexpr void (*kSetups[])(const benchmark::State&) = {
            [](const benchmark::State&) { use(kPolicies[0]); },
            [](const benchmark::State&) { use(kPolicies[1]); },
            [](const benchmark::State&) { use(kPolicies[2]); },
            [](const benchmark::State&) { use(kPolicies[3]); },
        };
        auto* setup = kSetups[&policy - kPolicies];
        add("create", &create)
            ->Setup(setup)
            ->Arg(64)
            ->Arg(4096)
            ->Arg(65536)
            ->Threads(1)
            ->Threads(4);
        add("slice", &slice)->Setup(setup);
        add("copy", &copy)->Setup(setup);
    }
    return 0;
}();

}  // namespace
