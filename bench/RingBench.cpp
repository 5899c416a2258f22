// Records through the ring: the calls alone, to reading processes, and a wake-up through the FIFO.

#include <benchmark/benchmark.h>
#include <poll.h>
#include <sched.h>

#include <cstring>
#include <vector>

#include "Vantel/Memory/CShmBuffer.h"
#include "bench/ForkedPeers.h"
#include "tests/ipc/RingSupport.h"

using Vantel::Memory::CShmBuffer;

namespace {

constexpr unsigned kNodes = 1024;
constexpr uint64_t kLast = ~0ull;

struct BenchRing {
    explicit BenchRing(unsigned bytes) : record(bytes), size(bytes) {
        created = writer.create(name.c_str(), bytes, kNodes, 1);
    }

    int put(uint64_t number) {
        std::memcpy(record.data(), &number, sizeof number);
        return writer.put(record.data(), size, 10000);
    }

    OrbelTest::ShmCleanup cleanup;
    std::string name = cleanup.name("ring_bench");
    std::vector<char> record;
    unsigned size;
    CShmBuffer writer;
    bool created = false;
};

/// The next record's number; waits by yielding.
uint64_t nextNumber(CShmBuffer& ring, std::vector<char>& buffer) {
    unsigned size = 0;
    while (ring.get(buffer.data(), static_cast<unsigned>(buffer.size()), &size) <= 0) {
        sched_yield();
    }
    uint64_t number = 0;
    std::memcpy(&number, buffer.data(), sizeof number);
    return number;
}

void put(benchmark::State& state) {
    BenchRing ring(static_cast<unsigned>(state.range(0)));
    ring.writer.setOverwrite(true);
    uint64_t number = 0;
    for (auto _ : state) {
        if (ring.put(++number) != 0) {
            state.SkipWithError("not put");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(put)->Arg(64)->Arg(1024)->Arg(65536);

void putAndGet(benchmark::State& state) {
    BenchRing ring(static_cast<unsigned>(state.range(0)));
    CShmBuffer reader;
    reader.open(ring.name.c_str());
    std::vector<char> buffer(ring.size);
    uint64_t number = 0;
    for (auto _ : state) {
        if (ring.put(++number) != 0 || nextNumber(reader, buffer) != number) {
            state.SkipWithError("another record");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(putAndGet)->Arg(64)->Arg(1024)->Arg(65536);

/// Records of range(0) bytes to range(1) reading processes; each checks that it gets all of them.
void putToReaders(benchmark::State& state) {
    BenchRing ring(static_cast<unsigned>(state.range(0)));
    ForkedPeers readers;
    for (long i = 0; i < state.range(1); ++i) {
        readers.add([&](const ForkedPeers::Ready& ready) {
            CShmBuffer reader;
            std::vector<char> buffer(ring.size);
            if (!reader.open(ring.name.c_str())) {
                return false;
            }
            ready();
            for (uint64_t expected = 1;; ++expected) {
                const uint64_t number = nextNumber(reader, buffer);
                if (number != expected) {
                    return number == kLast;
                }
            }
        });
    }
    uint64_t number = 0;
    for (auto _ : state) {
        if (ring.put(++number) != 0) {
            state.SkipWithError("readers do not keep up");
            break;
        }
    }
    ring.put(kLast);
    if (!readers.join()) {
        state.SkipWithError("a reader lost records");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(putToReaders)->ArgsProduct({{64, 1024, 65536}, {1, 4}})->UseRealTime();

/// There and back between two processes that sleep on their FIFOs: two wake-ups.
void wakeUpThereAndBack(benchmark::State& state) {
    BenchRing there(64);
    BenchRing back(64);
    const auto sleepForNext = [](CShmBuffer& reader, std::vector<char>& buffer) {
        unsigned size = 0;
        while (reader.get(buffer.data(), 64, &size) <= 0) {
            pollfd readable{reader.getEventFd(), POLLIN, 0};
            poll(&readable, 1, 1000);
            reader.readEvent(1024);
        }
        uint64_t number = 0;
        std::memcpy(&number, buffer.data(), sizeof number);
        return number;
    };
    ForkedPeers peer;
    peer.add([&](const ForkedPeers::Ready& ready) {
        CShmBuffer reader;
        std::vector<char> buffer(64);
        if (!reader.open(there.name.c_str()) || !reader.enableEvent(true)) {
            return false;
        }
        CShmBuffer writer;  // of its own: what this process forked with is the other's
        writer.create(back.name.c_str(), 64, kNodes, 1);
        ready();
        uint64_t number = 0;
        do {
            number = sleepForNext(reader, buffer);
            writer.put(&number, sizeof number, 1000);
        } while (number != kLast);
        return true;
    });
    CShmBuffer reader;
    std::vector<char> buffer(64);
    reader.open(back.name.c_str());
    reader.enableEvent(true);
    uint64_t number = 0;
    for (auto _ : state) {
        there.put(++number);
        if (sleepForNext(reader, buffer) != number) {
            state.SkipWithError("another answer");
            break;
        }
    }
    there.put(kLast);
    peer.join();
}
BENCHMARK(wakeUpThereAndBack)->UseRealTime();

/// What the FIFO's own wake-up costs, for comparison: a byte there and back through two pipes.
void pipeThereAndBack(benchmark::State& state) {
    int there[2];
    int back[2];
    if (pipe(there) != 0 || pipe(back) != 0) {
        state.SkipWithError("no pipe");
        return;
    }
    ForkedPeers peer;
    peer.add([&](const ForkedPeers::Ready& ready) {
        close(there[1]);
        ready();
        char byte = 0;
        while (read(there[0], &byte, 1) == 1 && write(back[1], &byte, 1) == 1) {
        }
        return true;
    });
    char byte = 'A';
    for (auto _ : state) {
        if (write(there[1], &byte, 1) != 1 || read(back[0], &byte, 1) != 1) {
            state.SkipWithError("pipe broke");
            break;
        }
    }
    close(there[1]);
    peer.join();
    for (const int fd : {there[0], back[0], back[1]}) {
        close(fd);
    }
}
BENCHMARK(pipeThereAndBack)->UseRealTime();

}  // namespace
