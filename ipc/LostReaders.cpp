#include "ipc/LostReaders.h"

#include "ipc/NodeDirectory.h"

namespace Vantel::Orbel {

namespace {

enum class Removal { None, SomeLeft, NobodyLeft };

/// Takes a reader's bits out of both masks by one swap, as long as the block is in the incarnation
/// that was judged and, unless it `mayHoldClaim`, the reader has not claimed it meanwhile.
Removal removeReader(BlockStatus& status, uint64_t sequence, uint32_t reader, bool mayHoldClaim) {
    const uint64_t bits = ReaderMasks::both(reader).pack();
    const uint64_t claim = ReaderMasks{0, 1u << reader}.pack();
    uint64_t masks = status.masks.load();
    while ((masks & bits) != 0 && (mayHoldClaim || (masks & claim) == 0) &&
           status.stateWord().is(BlockState::Ready, sequence)) {
        const uint64_t left = masks & ~bits;
        if (status.masks.compareExchange(masks, left)) {
            return left == 0 ? Removal::NobodyLeft : Removal::SomeLeft;
        }
    }
    return Removal::None;
}

}  // namespace

bool removeLostReaders(BlockStatus& status, uint64_t sequence, NodeDirectory* domain, bool timedOut,
                       const std::function<void(uint64_t readerId)>& onDead) {
    for (uint32_t reader = 0; reader < kMaxReaders; ++reader) {
        const uint64_t readerId = status.readerIds[reader].load(std::memory_order_relaxed);
        if (readerId == 0) {
            break;
        }
        if ((status.masks.load() & ReaderMasks::both(reader).pack()) == 0) {
            continue;
        }
        const bool alive = domain != nullptr && domain->checkNodeAlive(readerId);
        if (alive && !timedOut) {
            continue;
        }
        if (!alive && onDead) {
            onDead(readerId);
        }
        if (removeReader(status, sequence, reader, !alive) == Removal::NobodyLeft) {
            return true;
        }
    }
    return false;
}

}  // namespace Vantel::Orbel
