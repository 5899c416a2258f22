#pragma once

#include <cstdint>
#include <optional>

#include "Vantel/Memory/CShmBuffer.h"
#include "frame/base/UniqueFd.h"
#include "ipc/RingLayout.h"
#include "ipc/RingSignals.h"
#include "ipc/ShmSegment.h"

namespace Vantel::Memory {

/// Protocol of a ring. Writers win a position by the compare-and-swap of `tail`, readers of one
/// slot by that of `head`; between writer and reader the word of a node is a sequence lock, "being
/// written" before the content is touched and "ready" (release) after it.
///
/// ShmBufferSegment.cpp makes and maps the segment, ShmBufferReaders.cpp keeps the slots of the
/// readers, ShmBufferRecords.cpp moves the records.
class CShmBuffer::Internal {
public:
    Internal();
    ~Internal() { close(); }

    bool create(const char* name, uint32_t dataSize, uint32_t nodeCount);
    bool open(const char* name, int waitMs);
    bool close();
    bool destroy();

    void setSigParam(uint32_t threshold, uint32_t slots);
    bool registerReader();
    void notifyReaders();

    int put(const void* data, uint32_t size);
    /// See CShmBuffer::get(); follows a ring that was made anew.
    int get(void* buffer, uint32_t size, uint32_t* outSize);

    bool mapped() const { return mSegment && mSegment->mapped(); }
    bool registered() const { return mapped() && mSigIdx >= 0; }
    uint64_t nodeSize() const { return mSize.nodeSize; }
    const char* name() const { return mName; }
    int eventFd() const { return mEventFd.get(); }
    ShmReaderSlot& ownSlot() const { return header()->readers[mSigIdx]; }
    void setOverwrite(bool overwrite) { mOverwrite = overwrite; }

private:
    enum class Found { Nothing, Joined, Failed };

    ShmBufferHeader* header() const {
        return reinterpret_cast<ShmBufferHeader*>(mSegment->address());
    }
    ShmNode& nodeAt(uint64_t position) const;
    RingSize foundSize() const;
    void keepName(const char* name);

    Found joinExisting(uint64_t totalBytes);
    bool createNew(uint64_t totalBytes);
    bool initQueue();
    bool openSegment(int waitMs);

    int checkShmValid();
    bool claimSlot();
    void unregisterReader();
    static bool readerAlive(const ShmReaderSlot& slot, uint32_t pid, uint64_t nowMs);
    static bool dropDeadReader(ShmReaderSlot& slot, uint32_t pid, uint64_t tail);
    uint64_t effectiveHead(uint64_t tail, uint64_t nowMs);

    void awaitFormerWriter(ShmNode& node, uint64_t position) const;
    void writeRecord(ShmNode& node, uint64_t position, const void* data, uint32_t size);
    /// One look at the record at `head`: nothing means look again.
    std::optional<int> getOnce(uint64_t head, void* buffer, uint32_t size, uint32_t* outSize);
    std::optional<int> skipIfLost(ShmNode& node, uint64_t word, uint64_t head);
    bool advance(uint64_t head, uint64_t to);

    const uint32_t mPid;
    int mSigIdx = -1;
    bool mOverwrite = false;
    char mName[64] = {};  // kept after close(): get() opens by it again
    RingSize mSize;       // as checked against the mapping; the segment's own may change
    std::optional<ShmSegment> mSegment;
    Orbel::UniqueFd mEventFd;
    RingSignals mSignals;
};

}  // namespace Vantel::Memory
