// The latest sample through the triple buffer: the calls alone, and beside a busy reader.

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "Vantel/Memory/CShmTripleBuffer.h"
#include "bench/ForkedPeers.h"
#include "tests/ipc/RingSupport.h"

using Vantel::Memory::CShmTripleBuffer;

namespace {

struct BenchBuffer {
    explicit BenchBuffer(unsigned bytes) : sample(bytes), size(bytes) {
        writer.create(name.c_str(), bytes);
    }
    bool put(uint64_t number) {
        std::memcpy(sample.data(), &number, sizeof number);
        return writer.put(sample.data(), size) == 0;
    }

    OrbelTest::ShmCleanup cleanup;
    std::string name = cleanup.name("triple_bench");
    std::vector<char> sample;
    unsigned size;
    CShmTripleBuffer writer;
};

/// range(1) processes that read as fast as they can.
void put(benchmark::State& state) {
    BenchBuffer buffer(static_cast<unsigned>(state.range(0)));
    ForkedPeers readers;
    for (long i = 0; i < state.range(1); ++i) {
        readers.add([&](const ForkedPeers::Ready& ready) {
            CShmTripleBuffer reader;
            std::vector<char> sample(buffer.size);
            reader.open(buffer.name.c_str(), true);
            ready();
            while (reader.get(sample.data(), buffer.size, nullptr, nullptr) >= 0) {
            }
            return true;  // -4: destroyed
        });
    }
    uint64_t number = 0;
    for (auto _ : state) {
        if (!buffer.put(++number)) {
            state.SkipWithError("not put");
            break;
        }
    }
    buffer.writer.destroy();
    readers.join();
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(put)->ArgsProduct({{64, 1024, 65536}, {0, 1}})->UseRealTime();

void get(benchmark::State& state) {
    BenchBuffer buffer(static_cast<unsigned>(state.range(0)));
    CShmTripleBuffer reader;
    reader.open(buffer.name.c_str(), false);
    std::vector<char> sample(buffer.size);
    buffer.put(4711);
    for (auto _ : state) {
        if (reader.get(sample.data(), buffer.size, nullptr, nullptr) !=
                static_cast<int>(buffer.size) ||
            std::memcmp(sample.data(), buffer.sample.data(), 8) != 0) {
            state.SkipWithError("another sample");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(get)->Arg(64)->Arg(1024)->Arg(65536);

void getNothingNew(benchmark::State& state) {
    BenchBuffer buffer(64);
    CShmTripleBuffer reader;
    reader.open(buffer.name.c_str(), true);
    for (auto _ : state) {
        if (reader.get(buffer.sample.data(), 64, nullptr, nullptr) != 0) {
            state.SkipWithError("something came");
            break;
        }
    }
}
BENCHMARK(getNothingNew);

}  // namespace
