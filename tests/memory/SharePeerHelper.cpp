// A process beside the test on the segments of the pool that it is given: key names, then what to
// do there.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/ShareAllocators.h"

using namespace Vantel::Memory;

namespace {

void say(const char* line) {
    std::puts(line);
    std::fflush(stdout);
}

/// Holds blocks, describes every second one.
std::vector<int32_t> hold(const OrbelTest::ShareAllocators& pool) {
    std::vector<int32_t> offsets;
    for (int i = 0; i < 6; ++i) {
        offsets.push_back(pool.offsetOf(pool.take(1024 << (i % 3))));
        pool.refer->addRefer(pool.refer, offsets.back());
        if (i % 2 == 0) {
            pool.refer->incDeliverRef(pool.refer, offsets.back());
        }
    }
    return offsets;
}

void release(const OrbelTest::ShareAllocators& pool, const std::vector<int32_t>& offsets) {
    for (const int32_t offset : offsets) {
        pool.refer->decDeliverRef(pool.refer, offset);
        pool.refer->releaseRefer(pool.refer, offset);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        return 2;
    }
    const std::string role = argv[3];
    void* const metadata = shareMemGet(argv[1], 0, 0);
    void* const data = shareMemGet(argv[2], 0, 0);
    if (metadata == nullptr || data == nullptr) {
        return 2;
    }
    const OrbelTest::ShareAllocators pool({0, 0, 0}, metadata, data, false);
    if (!pool.ready()) {
        return 2;
    }
    const auto pid = static_cast<uint32_t>(getpid());
    if (role == "work") {
        say("there");
        std::getchar();  // all begin at once
        return OrbelTest::takeAndGiveAtRandom(pool, pid, 300000) ? 0 : 1;
    }
    if (role == "lock") {
        getProcessMutex(static_cast<uint32_t>(std::atoi(argv[4])))
            ->lock(getProcessMutex(static_cast<uint32_t>(std::atoi(argv[4]))));
    }
    if (role == "hold") {
        hold(pool);
    }
    say("there");
    while (role == "referOn") {
        release(pool, hold(pool));
    }
    while (role == "workOn") {
        OrbelTest::takeAndGiveAtRandom(pool, pid, 1000);
    }
    pause();
}
