// A process with its own environment and its own end. The first argument selects what it does; it
// prints a line for each step that the test looks at, and fatal log lines.

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "Vantel/ILogger.h"
#include "Vantel/Memory/IMemoryPool.h"
#include "memory/cache/SystemMemoryAccounting.h"
#include "tests/support/WithoutLogServer.h"

namespace {

using Vantel::ILogger;
using Vantel::Memory::IMemoryPool;

void printLine(ILogger::LoggerLevel, const char* line, int) {
    const char* text = std::strchr(line, ']');
    for (int i = 0; text != nullptr && i < 4; ++i) {
        text = std::strchr(text + 1, ']');
    }
    std::printf("%s", text != nullptr ? text + 1 : line);
    std::fflush(stdout);
}

IMemoryPool* const pool = IMemoryPool::instance();

void limit() {
    // The first region serves small blocks and large ones up to its size, whatever the limit.
    void* small = pool->allocate(100);
    void* whole = pool->allocate(100 * 4096);
    void* beyond = pool->allocate(129 * 4096);
    void* otherClass = pool->allocate(30 * 4096);
    std::printf("%d %d %d %d\n", small != nullptr, whole != nullptr, beyond != nullptr,
                otherClass != nullptr);
    void* kept = pool->reallocate(small, 1 << 20);
    std::printf("%d\n", kept != nullptr);
    pool->deallocate(small);
    pool->deallocate(whole);
}

void largeLimit() {
    void* first = pool->allocate(129 * 4096);
    void* second = pool->allocate(129 * 4096);
    std::printf("%d %d\n", first != nullptr, second != nullptr);
    pool->deallocate(first);
    void* third = pool->allocate(129 * 4096);
    std::printf("%d\n", third != nullptr);
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

void overrun(int at, bool resize) {
    auto* block = static_cast<char*>(pool->allocate(24));
    block[at] ^= 1;
    std::printf("written\n");
    std::fflush(stdout);
    resize ? static_cast<void>(pool->reallocate(block, 48)) : pool->deallocate(block);
}

/// The process exits while a thread uses the pool, and static objects still hold blocks.
struct LateUser {
    void* block = pool->allocate(100);
    ~LateUser() { pool->deallocate(block); }
};

void exitBusy() {
    static LateUser user;
    std::thread([] {
        for (;;) {
            pool->deallocate(pool->allocate(3000));
        }
    }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

}  // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 1 ? argv[1] : "";
    ILogger::instance()->init("helper", 4096);
    ILogger::instance()->setOutput(0);
    ILogger::instance()->attach(&printLine);
    if (role == "limit") {
        limit();
    } else if (role == "largeLimit") {
        largeLimit();
    } else if (role == "threshold") {
        threshold();
    } else if (role == "debugGood") {
        debugGood();
    } else if (role == "left") {
        overrun(-1, false);
    } else if (role == "right") {
        overrun(24, false);
    } else if (role == "rightResize") {
        overrun(24, true);
    } else if (role == "behindGuard") {
        overrun(28, false);
    } else if (role == "wild") {
        int onStack = 0;
        pool->deallocate(&onStack);
    } else if (role == "wildResize") {
        int onStack = 0;
        pool->reallocate(&onStack, 100);
    } else if (role == "exitBusy") {
        exitBusy();
    } else if (role == "exitQuiet") {
        static LateUser user;
    } else {
        return 2;
    }
    return 0;
}
