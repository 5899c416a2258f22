#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ipc/SharedMemPool.h"
#include "ipc/SharedMemory.h"

/// A process on a pool of the tests' (poolId 1, 256 bytes payload, 8 extra).
///   PoolHelper churn NAME BLOCKS COUNT   takes and gives COUNT blocks, the payload checked
///   PoolHelper hold NAME BLOCKS          takes one block, prints its index, waits for a line
///   PoolHelper lock NAME BLOCKS          enters the lock of a clean-up pass, waits for a line
/// Ends with 0, or 1 if something was wrong.
namespace {

using Vantel::Orbel::BlockHeader;
using Vantel::Orbel::SharedMemPool;

constexpr unsigned int kBlockSize = 256;

/// Fills a payload with this process's mark and finds it unchanged: nobody else has the block.
bool mineAlone(void* payload, unsigned long mark) {
    auto* words = static_cast<volatile unsigned long*>(payload);
    constexpr size_t count = kBlockSize / sizeof mark;
    for (size_t i = 0; i < count; ++i) {
        words[i] = mark;
    }
    for (size_t i = 0; i < count; ++i) {
        if (words[i] != mark) {
            return false;
        }
    }
    return true;
}

bool churn(SharedMemPool& pool, long count) {
    const auto self = static_cast<unsigned long>(getpid());
    for (long done = 0; done < count;) {
        BlockHeader* block = pool.allocateBlock(self, 1, 1, 7);
        if (block == nullptr) {
            continue;  // the others have them all for the moment
        }
        const unsigned int index = block->locationWord().blockIndex;
        const auto mark = self << 32 | static_cast<unsigned long>(done);
        if (!mineAlone(pool.getBlockData(index), mark) || block->status.writerId.load() != self ||
            !pool.releaseBlock(block)) {
            return false;
        }
        ++done;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        return 2;
    }
    SharedMemPool pool(1, argv[2], kBlockSize, 8, static_cast<unsigned int>(std::atoi(argv[3])));
    if (!pool.init(nullptr)) {
        return 1;
    }
    if (std::strcmp(argv[1], "churn") == 0 && argc == 5) {
        return churn(pool, std::atol(argv[4])) ? 0 : 1;
    }
    if (std::strcmp(argv[1], "lock") == 0) {
        auto* header = static_cast<Vantel::Orbel::PoolHeader*>(pool.memory()->baseAddress());
        std::puts(header->lock.enter() ? "locked" : "failed");
    } else {
        BlockHeader* block = pool.allocateBlock(42, 3, 9, 7);
        std::printf("%d\n",
                    block != nullptr ? static_cast<int>(block->locationWord().blockIndex) : -1);
    }
    std::fflush(stdout);
    std::getchar();
    return 0;
}
