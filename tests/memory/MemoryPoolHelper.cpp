// A process with its own environment and its own end. The argument selects what it does; it prints
// a line for each step that the test looks at, and fatal log lines.

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>

#include "Vantel/ILogger.h"
#include "Vantel/Memory/IMemoryPool.h"
#include "memory/cache/SystemMemoryAccounting.h"
#include "tests/support/WithoutLogServer.h"

namespace {

using Vantel::ILogger;
using Vantel::Memory::IMemoryPool;

constexpr size_t kBeyondRegion = 129 * 4096;

IMemoryPool* const pool = IMemoryPool::instance();

void printLine(ILogger::LoggerLevel, const char* line, int) {
    std::printf("%s", line);
    std::fflush(stdout);
}

void limit() {
    // The first region serves small blocks and large ones up to its size, whatever the limit.
    void* small = pool->allocate(100);
    void* whole = pool->allocate(100 * 4096);
    void* beyond = pool->allocate(kBeyondRegion);
    void* otherClass = pool->allocate(30 * 4096);
    std::printf("%d %d %d %d\n", small != nullptr, whole != nullptr, beyond != nullptr,
                otherClass != nullptr);
    std::printf("%d\n", pool->reallocate(small, 1 << 20) != nullptr);
    pool->deallocate(whole);
}

void largeLimit() {
    void* first = pool->allocate(kBeyondRegion);
    void* second = pool->allocate(kBeyondRegion);
    std::printf("%d %d\n", first != nullptr, second != nullptr);
    pool->deallocate(first);
    std::printf("%d\n", pool->allocate(kBeyondRegion) != nullptr);
}

void threshold() {
    void* blocks[6] = {};
    for (void*& block : blocks) {
        block = pool->allocate(100 * 4096);
    }
    for (void* block : blocks) {
        pool->deallocate(block);
    }
    std::printf("%u\n", Vantel::Memory::SystemMemoryAccounting::instance().pagesInUse());
}

void debugGood() {
    for (const size_t size : {0, 1, 7, 8, 100, 5000, 100000}) {
        auto* block = static_cast<char*>(pool->allocate(size));
        std::memset(block, 1, size);
        block = static_cast<char*>(pool->reallocate(block, size + 30));
        std::memset(block + size, 2, 30);
        block = static_cast<char*>(pool->reallocate(block, size + 10));
        std::printf("%d", (size == 0 || block[size - 1] == 1) && block[size] == 2);
        pool->deallocate(block);
    }
    pool->deallocate(nullptr);
    std::printf(" %d %d\n", pool->reallocate(pool->allocate(5), 0) == nullptr,
                pool->allocate(SIZE_MAX) == nullptr);
}

void* overrunBlock(int at) {
    auto* block = static_cast<char*>(pool->allocate(24));
    block[at] ^= 1;
    std::printf("written\n");
    std::fflush(stdout);
    return block;
}

int onStack = 0;

/// Static objects still hold blocks when the process exits.
struct LateUser {
    void* block = pool->allocate(100);
    ~LateUser() { pool->deallocate(block); }
};

void exitQuiet() {
    static LateUser user;
}

void exitBusy() {
    static LateUser user;
    std::thread([] {
        for (;;) {
            pool->deallocate(pool->allocate(3000));
        }
    }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

const std::map<std::string, void (*)()> roles = {
    {"limit", &limit},
    {"largeLimit", &largeLimit},
    {"threshold", &threshold},
    {"debugGood", &debugGood},
    {"left", [] { pool->deallocate(overrunBlock(-1)); }},
    {"right", [] { pool->deallocate(overrunBlock(24)); }},
    {"rightResize", [] { pool->reallocate(overrunBlock(24), 48); }},
    {"behindGuard", [] { pool->deallocate(overrunBlock(28)); }},
    {"wild", [] { pool->deallocate(&onStack); }},
    {"wildResize", [] { pool->reallocate(&onStack, 100); }},
    {"exitQuiet", &exitQuiet},
    {"exitBusy", &exitBusy},
};

}  // namespace

int main(int, char** argv) {
    ILogger::instance()->init("helper", 4096);
    ILogger::instance()->setOutput(0);
    ILogger::instance()->attach(&printLine);
    roles.at(argv[1])();
    return 0;
}
