#include "Vantel/Orbel/RWSpinLock.h"

#include "thread/BackOff.h"

namespace Vantel::Orbel {

namespace {

constexpr uint32_t kWriter = 1;
constexpr uint32_t kReserved = 2;  // keeps readers out; nothing sets it
constexpr uint32_t kReader = 4;    // the bits from here on count the readers

}  // namespace

class alignas(64) RWSpinLock::Internal {
public:
    std::atomic<uint32_t> mState{0};
};

RWSpinLock::RWSpinLock() : mInternal(new Internal) {
    static_assert(sizeof(Internal) == 64, "a cache line of its own");
}

RWSpinLock::~RWSpinLock() {
    delete mInternal;
}

void RWSpinLock::enterReading() {
    std::atomic<uint32_t>& state = mInternal->mState;
    for (BackOff backOff;; backOff.wait()) {
        uint32_t found = state.load(std::memory_order_relaxed);
        if ((found & (kWriter | kReserved)) == 0 &&
            state.compare_exchange_strong(found, found + kReader)) {
            return;
        }
    }
}

void RWSpinLock::leaveReading() {
    mInternal->mState.fetch_sub(kReader);
}

void RWSpinLock::enterWriting() {
    std::atomic<uint32_t>& state = mInternal->mState;
    for (BackOff backOff;; backOff.wait()) {
        uint32_t found = 0;
        if (state.load(std::memory_order_relaxed) == 0 &&
            state.compare_exchange_strong(found, kWriter)) {
            return;
        }
    }
}

void RWSpinLock::leaveWriting() {
    mInternal->mState.fetch_and(~(kWriter | kReserved));
}

}  // namespace Vantel::Orbel
