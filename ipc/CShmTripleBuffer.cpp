#include "Vantel/Memory/CShmTripleBuffer.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "frame/base/Log.h"
#include "ipc/CreatorLock.h"
#include "ipc/OrderedCopy.h"
#include "ipc/ShmSegment.h"
#include "ipc/TripleLayout.h"

namespace Vantel::Memory {

/// Protocol: the writer fills the one slot that neither is nor was in front, its sequence before
/// and behind the content, and publishes by a store of `state`. The reader looks at the slot's
/// sequence before and after it has copied: an overtaken copy is thrown away.
class CShmTripleBuffer::Internal {
public:
    ~Internal() { close(); }

    bool create(uint32_t dataSize);
    bool open(bool onlyNew);
    void close();
    bool destroy();
    int put(const void* data, uint32_t size);
    int get(void* buffer, uint32_t size, uint32_t* outSize, unsigned long* outSeq);
    bool ensureAttached();

    bool mapped() const { return mSegment && mSegment->mapped(); }
    bool validateAttached(uint64_t expectedSlotSize) const;
    uint64_t latestSequence() const { return state().sequence; }
    void setName(const char* name) { std::snprintf(mName, sizeof mName, "/shmTriple_%s", name); }
    const char* path() const { return mName; }

private:
    ShmTripleHeader& header() const {
        return *reinterpret_cast<ShmTripleHeader*>(mSegment->address());
    }
    /// Acquire pairs with the store in put(): the sample that it names is seen.
    TripleState state() const {
        return TripleState::unpack(header().state.load(std::memory_order_acquire));
    }
    ShmTripleSlot& slot(uint32_t index) const;
    bool openExisting();
    bool attachedAs(uint64_t expectedSlotSize);
    bool createNew(uint64_t slotSize);

    bool mOnlyNew = true;
    uint64_t mLastSeq = 0;   // the one last returned by get()
    char mName[64] = {};     // of the segment; stays after close()
    uint64_t mSlotSize = 0;  // as checked against the mapping; the segment's own may change
    std::optional<ShmSegment> mSegment;
};

ShmTripleSlot& CShmTripleBuffer::Internal::slot(uint32_t index) const {
    return *reinterpret_cast<ShmTripleSlot*>(mSegment->address() + sizeof(ShmTripleHeader) +
                                             index * (mSlotSize + sizeof(ShmTripleSlot)));
}

bool CShmTripleBuffer::Internal::openExisting() {
    mSegment.emplace(mName);
    return mSegment->openWhole();
}

/// `expectedSlotSize` 0: whatever it is.
bool CShmTripleBuffer::Internal::validateAttached(uint64_t expectedSlotSize) const {
    if (!mapped() || mSegment->size() < sizeof(ShmTripleHeader)) {
        return false;
    }
    const uint64_t slotSize = header().slotSize.load();
    return header().valid.load() != 0 && header().version.load() == kTripleVersion &&
           slotSize > 0 && slotSize % 8 == 0 &&
           (expectedSlotSize == 0 || slotSize == expectedSlotSize) &&
           mSegment->size() >= tripleTotalBytes(slotSize) && state().consistent();
}

bool CShmTripleBuffer::Internal::attachedAs(uint64_t expectedSlotSize) {
    if (!validateAttached(expectedSlotSize)) {
        return false;
    }
    mSlotSize = header().slotSize.load();
    // It may have changed since it was found good.
    return mSegment->size() >= tripleTotalBytes(mSlotSize);
}

/// Follows a buffer that was made anew. No system call as long as the one at hand is good.
bool CShmTripleBuffer::Internal::ensureAttached() {
    if (mapped() && header().valid.load(std::memory_order_acquire) != 0 &&
        header().version.load(std::memory_order_relaxed) == kTripleVersion) {
        return true;
    }
    if (mName[0] == '\0') {
        return false;
    }
    close();
    if (openExisting() && attachedAs(0)) {
        return true;
    }
    close();
    return false;
}

bool CShmTripleBuffer::Internal::create(uint32_t dataSize) {
    const uint64_t slotSize = tripleSlotSize(dataSize);
    if (tripleTotalBytes(slotSize) > kTripleLargest) {
        ORBEL_LOG_ERROR("shm name=%s too large: data size %u\n", mName, dataSize);
        return false;
    }
    if (openExisting()) {
        if (attachedAs(slotSize)) {
            return true;  // with its last sample
        }
        if (mSegment->size() >= sizeof(ShmTripleHeader)) {
            header().valid.store(0);  // readers have to see it before they can find the name gone
        }
        close();
        ShmSegment::unlink(mName);
    }
    return createNew(slotSize);
}

bool CShmTripleBuffer::Internal::createNew(uint64_t slotSize) {
    mSegment.emplace(mName);
    if (!mSegment->createNew(tripleTotalBytes(slotSize))) {
        return false;
    }
    std::memset(mSegment->address(), 0, mSegment->size());
    mSlotSize = slotSize;
    header().version.store(kTripleVersion);
    header().slotSize.store(static_cast<uint32_t>(slotSize));
    header().state.store(TripleState{}.pack());
    header().valid.store(1);  // last: whoever sees it sees a whole buffer
    return true;
}

bool CShmTripleBuffer::Internal::open(bool onlyNew) {
    mOnlyNew = onlyNew;
    bool opened = openExisting();
    for (int attempt = 1; !opened && attempt <= 10; ++attempt) {
        usleep(100000);
        opened = attempt < 10 && openExisting();
    }
    if (!opened || !attachedAs(0)) {
        close();
        return false;
    }
    return true;
}

void CShmTripleBuffer::Internal::close() {
    mLastSeq = 0;
    if (mSegment && mSegment->unmap()) {
        mSegment.reset();
    }
}

bool CShmTripleBuffer::Internal::destroy() {
    if (mapped()) {
        header().valid.store(0);
    }
    close();
    return mName[0] != '\0' && ShmSegment::unlink(mName);
}

int CShmTripleBuffer::Internal::put(const void* data, uint32_t size) {
    if (size > mSlotSize) {
        return -1;
    }
    const TripleState now = state();
    if (!now.consistent()) {
        return -4;  // somebody else wrote there
    }
    const TripleState next = now.next();
    ShmTripleSlot& target = slot(now.write);
    // Released one after the other: who sees anything of the content sees the new seqBegin.
    target.seqBegin.store(next.sequence, std::memory_order_release);
    target.size.store(size, std::memory_order_release);
    Orbel::OrderedCopy::toShared(target.payload(), data, size);
    target.seqEnd.store(next.sequence, std::memory_order_release);
    header().state.store(next.pack(), std::memory_order_release);
    return 0;
}

int CShmTripleBuffer::Internal::get(void* buffer, uint32_t size, uint32_t* outSize,
                                    unsigned long* outSeq) {
    const TripleState now = state();
    const auto report = [&](uint32_t bytes, bool withSequence) {
        if (outSize != nullptr) {
            *outSize = bytes;
        }
        if (outSeq != nullptr && withSequence) {
            *outSeq = now.sequence;
        }
    };
    if (mOnlyNew && (now.sequence == 0 || now.sequence == mLastSeq)) {
        report(0, true);
        return 0;
    }
    if (now.sequence == 0) {
        return static_cast<int>(size);  // as told in the header, strange as it is
    }
    if (now.front >= kTripleSlots) {
        return -4;
    }
    ShmTripleSlot& source = slot(now.front);
    const auto overtaken = [&] {
        return source.seqBegin.load(std::memory_order_acquire) != now.sequence ||
               source.seqEnd.load(std::memory_order_acquire) != now.sequence;
    };
    if (overtaken()) {
        return 0;
    }
    const uint32_t bytes = source.size.load(std::memory_order_acquire);
    if (overtaken()) {
        return 0;  // before anything is said about the size: it may be the next sample's
    }
    if (bytes > mSlotSize) {
        return -4;  // no writer of ours
    }
    report(bytes, false);
    if (bytes > size) {
        return -3;
    }
    Orbel::OrderedCopy::fromShared(buffer, source.payload(), bytes);
    if (overtaken()) {
        return 0;
    }
    mLastSeq = now.sequence;
    report(bytes, true);
    return static_cast<int>(bytes);
}

CShmTripleBuffer::CShmTripleBuffer() : mInternal(std::make_unique<Internal>()) {}

CShmTripleBuffer::~CShmTripleBuffer() = default;

bool CShmTripleBuffer::create(const char* name, unsigned int dataSize) {
    if (name == nullptr || dataSize == 0) {
        return false;
    }
    mInternal->setName(name);
    return Orbel::withCreatorLock(std::string("/tmp") + mInternal->path() + ".lock",
                                  [&] { return mInternal->create(dataSize); });
}

bool CShmTripleBuffer::open(const char* name, bool onlyNew) {
    if (name == nullptr) {
        return false;
    }
    if (mInternal->mapped()) {
        return mInternal->validateAttached(0);
    }
    mInternal->setName(name);
    return mInternal->open(onlyNew);
}

bool CShmTripleBuffer::close() {
    mInternal->close();
    return true;
}

bool CShmTripleBuffer::destroy() {
    return mInternal->destroy();
}

int CShmTripleBuffer::put(const void* data, unsigned int size) {
    if (data == nullptr || size == 0) {
        return -1;
    }
    return mInternal->ensureAttached() ? mInternal->put(data, size) : -4;
}

int CShmTripleBuffer::get(void* buffer, unsigned int size, unsigned int* outSize,
                          unsigned long* outSeq) {
    if (buffer == nullptr || size == 0) {
        return -1;
    }
    return mInternal->ensureAttached() ? mInternal->get(buffer, size, outSize, outSeq) : -4;
}

unsigned long CShmTripleBuffer::latestSeq() const {
    return mInternal->validateAttached(0) ? mInternal->latestSequence() : 0;
}

}  // namespace Vantel::Memory
