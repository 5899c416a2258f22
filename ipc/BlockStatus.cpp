#include "ipc/SegmentLayout.h"

namespace Vantel::Orbel {

// The block may be freed and reused at any moment until the claim stands, hence the test before
// and the one after the bit is taken. After it nothing moves the block on while this node lives:
// its writer waits for empty masks, and the clean-up leaves the claims of the living alone.
bool BlockStatus::tryClaimReader(unsigned int readerIndex, unsigned long writer,
                                 unsigned long sequence) {
    if (readerIndex >= kMaxReaders || writer == 0) {
        return false;
    }
    const uint32_t bit = 1u << readerIndex;
    const auto sameIncarnation = [&] {
        return stateWord().is(BlockState::Ready, sequence) && writerId.load() == writer;
    };
    uint64_t found = masks.load();
    ReaderMasks before;
    do {
        before = ReaderMasks::unpack(found);
        if (!sameIncarnation() || (before.read & bit) == 0 || (before.claim & bit) != 0) {
            return false;
        }
    } while (!masks.compareExchange(found, ReaderMasks{before.read, before.claim | bit}.pack()));
    if (sameIncarnation() && (readMask() & bit) != 0) {
        readRef.fetchAdd(1);
        return true;
    }
    dropClaim(readerIndex);
    return false;
}

}  // namespace Vantel::Orbel
