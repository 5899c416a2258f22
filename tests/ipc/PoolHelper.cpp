#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ipc/SharedMemPool.h"
#include "ipc/SharedMemory.h"

/// A process on a pool of the tests' (poolId 1, 256 bytes payload, 8 extra).
///   PoolHelper hold NAME BLOCKS   takes one block, prints its index, waits for a line
///   PoolHelper lock NAME BLOCKS   enters the lock of a clean-up pass, waits for a line
/// Ends with 0, or 1 if something was wrong.
namespace {

using Vantel::Orbel::BlockHeader;
using Vantel::Orbel::SharedMemPool;

constexpr unsigned int kBlockSize = 256;

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        return 2;
    }
    SharedMemPool pool(1, argv[2], kBlockSize, 8, static_cast<unsigned int>(std::atoi(argv[3])));
    if (!pool.init(nullptr)) {
        return 1;
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
