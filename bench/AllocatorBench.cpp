// The pool beside the allocators that a process could use instead. Those are loaded with their
// symbols to themselves and called by address: none of them stands in for malloc here, and each
// call costs an indirection, as the pool's virtual ones do.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Memory/IMemoryPool.h"

namespace {

using Vantel::Memory::IMemoryPool;

struct Allocator {
    const char* name;
    const char* library;  // null: this program's own
    const char* allocateName;
    const char* freeName;
    void* (*allocate)(size_t) = nullptr;
    void (*free)(void*) = nullptr;
};

std::array<Allocator, 5> allocators{{
    {"orbel", nullptr, nullptr, nullptr},
    {"glibc", nullptr, nullptr, nullptr, &std::malloc, &std::free},
    {"jemalloc", "libjemalloc.so.2", "malloc", "free"},
    {"tcmalloc", "libtcmalloc_minimal.so.4", "tc_malloc", "tc_free"},
    {"mimalloc", "libmimalloc.so.2", "mi_malloc", "mi_free"},
}};

/// The pool as its users call it.
struct Pool {
    explicit Pool(const Allocator&) {}
    void* allocate(size_t size) { return pool->allocate(size); }
    void free(void* block) { pool->deallocate(block); }
    IMemoryPool* const pool = IMemoryPool::instance();
};

struct Other {
    explicit Other(const Allocator& allocator)
        : allocate(allocator.allocate), free(allocator.free) {}
    void* (*const allocate)(size_t);
    void (*const free)(void*);
};

bool load(Allocator& allocator) {
    if (allocator.library == nullptr) {
        return true;
    }
    void* library = dlopen(allocator.library, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return false;
    }
    allocator.allocate =
        reinterpret_cast<void* (*)(size_t)>(dlsym(library, allocator.allocateName));
    allocator.free = reinterpret_cast<void (*)(void*)>(dlsym(library, allocator.freeName));
    return allocator.allocate != nullptr && allocator.free != nullptr;
}

/// One block of range(0) bytes taken and given back.
template <class Heap>
void pairs(benchmark::State& state, const Allocator& allocator) {
    Heap heap(allocator);
    const auto size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* block = heap.allocate(size);
        if (block == nullptr) {
            state.SkipWithError("no memory");
            break;
        }
        benchmark::DoNotOptimize(block);
        heap.free(block);
    }
}

/// 1000 blocks taken, then given back in the same order. Time per block.
template <class Heap>
void batch(benchmark::State& state, const Allocator& allocator) {
    constexpr size_t kBlocks = 1000;
    Heap heap(allocator);
    const auto size = static_cast<size_t>(state.range(0));
    std::array<uint64_t*, kBlocks> blocks{};
    while (state.KeepRunningBatch(kBlocks)) {
        for (size_t i = 0; i < kBlocks; ++i) {
            blocks[i] = static_cast<uint64_t*>(heap.allocate(size));
            *blocks[i] = i;
        }
        for (size_t i = 0; i < kBlocks; ++i) {
            if (*blocks[i] != i) {
                state.SkipWithError("blocks overlap");
            }
            heap.free(blocks[i]);
        }
    }
}

/// A live set of 10,000 blocks of 8 to range(0) bytes, of which a random one is replaced by one of
/// another size. Time per replacement.
template <class Heap>
void liveSet(benchmark::State& state, const Allocator& allocator) {
    constexpr size_t kBlocks = 10000;
    constexpr size_t kSteps = size_t{1} << 16;
    struct Step {
        uint32_t slot;
        uint32_t size;
    };
    Heap heap(allocator);
    std::mt19937 random(static_cast<unsigned>(state.thread_index()) + 1);
    std::uniform_int_distribution<uint32_t> size(8, static_cast<uint32_t>(state.range(0)));
    std::vector<Step> steps(kSteps);
    for (Step& step : steps) {
        step = {static_cast<uint32_t>(random() % kBlocks), size(random)};
    }
    std::vector<uint64_t*> blocks(kBlocks);
    const auto put = [&](size_t slot, size_t bytes) {
        blocks[slot] = static_cast<uint64_t*>(heap.allocate(bytes));
        *blocks[slot] = slot;
    };
    for (size_t i = 0; i < kBlocks; ++i) {
        put(i, size(random));
    }
    size_t at = 0;
    for (auto _ : state) {
        const Step step = steps[at++ % kSteps];
        if (*blocks[step.slot] != step.slot) {
            state.SkipWithError("blocks overlap");
            break;
        }
        heap.free(blocks[step.slot]);
        put(step.slot, step.size);
    }
    for (uint64_t* block : blocks) {
        heap.free(block);
    }
}

/// One thread takes blocks of range(0) bytes, another gives them back.
template <class Heap>
void handOver(benchmark::State& state, const Allocator& allocator) {
    constexpr size_t kLength = 1024;
    static std::array<std::atomic<uint64_t*>, kLength> ring;
    Heap heap(allocator);
    const auto size = static_cast<size_t>(state.range(0));
    const auto waitUntil = [](auto&& ready) {
        for (int spins = 0; !ready(); ++spins) {
            if (spins > 1000) {
                sched_yield();
            }
        }
    };
    size_t at = 0;
    for (auto _ : state) {
        std::atomic<uint64_t*>& place = ring[at % kLength];
        if (state.thread_index() == 0) {
            auto* block = static_cast<uint64_t*>(heap.allocate(size));
            *block = at;
            waitUntil([&] { return place.load(std::memory_order_acquire) == nullptr; });
            place.store(block, std::memory_order_release);
        } else {
            waitUntil([&] { return place.load(std::memory_order_acquire) != nullptr; });
            uint64_t* block = place.load(std::memory_order_relaxed);
            place.store(nullptr, std::memory_order_release);
            if (*block != at) {
                state.SkipWithError("another block came");
            }
            heap.free(block);
        }
        ++at;
    }
    // Each thread counts its own: the rate of hand-overs is that of one of them.
    state.SetItemsProcessed(state.thread_index() == 0 ? static_cast<int64_t>(at) : 0);
}

long residentKiB() {
    std::ifstream status("/proc/self/statm");
    long size = 0;
    long resident = 0;
    status >> size >> resident;
    return resident * (getpagesize() / 1024);
}

/// Four threads fill and shuffle live sets of all sizes, give everything back and end.
template <class Heap>
long keptKiB(const Allocator& allocator) {
    Heap heap(allocator);
    heap.free(heap.allocate(1));
    const auto work = [&](unsigned seed) {
        std::mt19937 random(seed);
        std::vector<void*> blocks(4000);
        for (int i = 0; i < 100000; ++i) {
            void*& block = blocks[random() % blocks.size()];
            heap.free(block);
            const size_t size = random() % (size_t{1} << (4 + random() % 15)) + 1;
            block = std::memset(heap.allocate(size), 1, size);
        }
        for (void* block : blocks) {
            heap.free(block);
        }
    };
    const auto run = [](auto&& body) {
        std::vector<std::thread> threads;
        for (unsigned i = 1; i <= 4; ++i) {
            threads.emplace_back(body, i);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    };
    run([](unsigned) {});  // what threads leave behind by themselves
    const long before = residentKiB();
    run(work);
    return residentKiB() - before;
}

/// Runs keptKiB() in a process of its own.
void memoryKept(benchmark::State& state, const Allocator& allocator) {
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) < 0) {
        state.SkipWithError("no /proc");
        return;
    }
    const std::string command = std::string(self) + " --kept=" + allocator.name;
    long kept = -1;
    for (auto _ : state) {
        FILE* child = popen(command.c_str(), "r");
        if (child == nullptr || std::fscanf(child, "%ld", &kept) != 1) {
            state.SkipWithError("no answer");
        }
        if (child != nullptr) {
            pclose(child);
        }
    }
    state.counters["KiB"] = static_cast<double>(kept);
}

template <class Heap>
void registerAll(const Allocator& allocator) {
    const auto add = [&](const char* name, auto* function) {
        return benchmark::RegisterBenchmark(
                   (std::string(name) + "/" + allocator.name).c_str(),
                   [function, &allocator](benchmark::State& state) { function(state, allocator); })
            ->UseRealTime();
    };
    auto* pair = add("pairs", &pairs<Heap>);
    for (const int64_t size :
         {16, 64, 128, 256, 512, 1024, 2048, 4096, 8192, 16384, 32768, 65536}) {
        pair->Arg(size);
    }
    pair->Threads(1)->Threads(4);
    add("batch", &batch<Heap>)->Arg(16)->Arg(64)->Arg(256)->Arg(1024)->Threads(1)->Threads(4);
    // Which is drawn as a curve; medians, since machines are seldom quiet for the whole of it.
    add("liveSet", &liveSet<Heap>)
        ->Arg(128)
        ->Arg(1024)
        ->Arg(16384)
        ->ThreadRange(1, 8)
        ->Repetitions(5)
        ->ReportAggregatesOnly();
    add("handOver", &handOver<Heap>)->Arg(64)->Arg(1024)->Threads(2);
    add("memoryKept", &memoryKept)->Iterations(1);
}

}  // namespace

int main(int argc, char** argv) {
    // One of the libraries needs more room for its thread locals than a late comer gets by itself.
    if (std::getenv("GLIBC_TUNABLES") == nullptr) {
        setenv("GLIBC_TUNABLES", "glibc.rtld.optional_static_tls=16384", 1);
        execv("/proc/self/exe", argv);
    }
    const std::string kept =
        argc == 2 && std::strncmp(argv[1], "--kept=", 7) == 0 ? argv[1] + 7 : "";
    for (Allocator& allocator : allocators) {
        if ((!kept.empty() && kept != allocator.name) || !load(allocator)) {
            continue;
        }
        const bool own = allocator.name == std::string("orbel");
        if (!kept.empty()) {
            std::printf("%ld\n", own ? keptKiB<Pool>(allocator) : keptKiB<Other>(allocator));
            return 0;
        }
        own ? registerAll<Pool>(allocator) : registerAll<Other>(allocator);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
