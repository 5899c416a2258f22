#include "Vantel/Orbel/CTime.h"
#include "frame/base/Log.h"
#include "ipc/OrderedCopy.h"
#include "ipc/ProcessAlive.h"
#include "ipc/ShmBufferInternal.h"
#include "thread/BackOff.h"

namespace Vantel::Memory {

namespace {

constexpr uint64_t kLostWriterUs = 3000000;

/// Not over yet also for a time in the future, which a stranger may have left.
bool within(uint64_t sinceUs, uint64_t nowUs, uint64_t lengthUs) {
    return sinceUs >= nowUs || nowUs - sinceUs <= lengthUs;
}

}  // namespace

int CShmBuffer::Internal::put(const void* data, uint32_t size) {
    if (size > mSize.nodeSize) {
        ORBEL_LOG_ERROR("data size %u exceeds node capacity %d\n", size,
                        static_cast<int>(mSize.nodeSize));
        return -1;
    }
    SharedField<uint64_t>& tail = header()->tail;
    uint64_t position = tail.load();
    do {
        if (!mOverwrite) {
            const uint64_t nowMs = Orbel::CTime::getCurrentMilliSecond();
            if (position + 1 - effectiveHead(position, nowMs) >= mSize.nodeCount) {
                return -2;
            }
        }
    } while (!tail.compareExchange(position, position + 1));

    ShmNode& node = nodeAt(position);
    awaitFormerWriter(node, position);
    writeRecord(node, position, data, size);
    notifyReaders();
    return 0;
}

/// A writer that was held up in this node since the last lap would spoil our record with the rest
/// of its own, and readers could not tell. So wait for its "ready", unless it has died.
void CShmBuffer::Internal::awaitFormerWriter(ShmNode& node, uint64_t position) const {
    if (position < mSize.nodeCount) {
        return;  // nobody was here before
    }
    const uint64_t former = position - mSize.nodeCount;
    const auto settled = [&] {
        const RingWord word = RingWord::unpack(node.word.load(std::memory_order_acquire));
        const int64_t ahead = word.aheadOf(former);
        return ahead > 0 || (ahead == 0 && (word.state == RingWord::State::Ready ||
                                            (word.state == RingWord::State::Writing &&
                                             !Orbel::processAlive(node.writerPid.load()))));
    };
    Orbel::BackOff backOff;
    uint64_t startUs = 0;
    while (!settled()) {
        const uint64_t nowUs = Orbel::CTime::getCurrentMicroSecond();
        startUs = startUs == 0 ? nowUs : startUs;
        if (nowUs - startUs > kLostWriterUs) {
            return;  // won this node and died before its first mark
        }
        backOff.wait();
    }
}

void CShmBuffer::Internal::writeRecord(ShmNode& node, uint64_t position, const void* data,
                                       uint32_t size) {
    // All released: nothing of the record is seen before the mark, nor the mark before the pid.
    const uint64_t writing = RingWord{RingWord::State::Writing, position}.pack();
    node.writerPid.store(mPid, std::memory_order_release);
    node.word.store(writing, std::memory_order_release);
    node.timestamp.store(Orbel::CTime::getCurrentMicroSecond(), std::memory_order_release);
    node.size.store(size, std::memory_order_release);
    Orbel::OrderedCopy::toShared(node.payload(), data, size);
    // Another mark: a writer one lap on has given us up for dead, and the node is its own.
    if (node.word.load(std::memory_order_relaxed) == writing) {
        node.word.store(RingWord{RingWord::State::Ready, position}.pack(),
                        std::memory_order_release);
    }
}

int CShmBuffer::Internal::checkShmValid() {
    if (mapped() && header()->valid.load(std::memory_order_acquire) == 0) {
        ORBEL_LOG_INFO(" shm name=%s marked invalid — unmapping\n", mName);
        close();
    }
    if (!mapped() && !open(mName, 100)) {
        ORBEL_LOG_ERROR("shm name=%s open failed\n", mName);
        return -4;
    }
    if (mSigIdx < 0) {
        ORBEL_LOG_ERROR("reader not registered: mSigIdx=%d\n", mSigIdx);
        return -1;
    }
    return 0;
}

int CShmBuffer::Internal::get(void* buffer, uint32_t size, uint32_t* outSize) {
    const int valid = checkShmValid();
    if (valid < 0) {
        return valid;
    }
    ShmReaderSlot& slot = ownSlot();
    const uint64_t nowMs = Orbel::CTime::getCurrentMilliSecond();
    if (slot.lastActive.load(std::memory_order_relaxed) != nowMs) {  // spares writers a cache miss
        slot.lastActive.store(nowMs, std::memory_order_relaxed);
    }
    for (;;) {
        const uint64_t head = slot.head.load();
        const uint64_t tail = header()->tail.load();
        if (head >= tail) {
            return 0;
        }
        if (tail - head > mSize.nodeCount) {
            advance(head, tail - mSize.nodeCount);  // writers have won all nodes up to there anew
            continue;
        }
        const std::optional<int> result = getOnce(head, buffer, size, outSize);
        if (result) {
            return *result;
        }
    }
}

std::optional<int> CShmBuffer::Internal::getOnce(uint64_t head, void* buffer, uint32_t size,
                                                 uint32_t* outSize) {
    ShmNode& node = nodeAt(head);
    const uint64_t word = node.word.load(std::memory_order_acquire);
    const auto unchanged = [&] { return node.word.load(std::memory_order_acquire) == word; };
    const RingWord mark = RingWord::unpack(word);
    const int64_t ahead = mark.aheadOf(head);
    if (mark.state != RingWord::State::Ready || ahead < 0) {
        return skipIfLost(node, word, head);
    }
    if (ahead > 0) {  // written over
        advance(head, head + 1);
        return std::nullopt;
    }
    const uint32_t recordBytes = node.size.load(std::memory_order_acquire);
    if (!unchanged()) {
        return std::nullopt;
    }
    if (recordBytes == 0 || recordBytes > mSize.nodeSize) {
        ORBEL_LOG_WARN(" node size %u is no record's, skip it\n", recordBytes);
        advance(head, head + 1);
        return std::nullopt;
    }
    if (outSize != nullptr) {
        *outSize = recordBytes;
    }
    if (size < recordBytes) {
        return -3;
    }
    Orbel::OrderedCopy::fromShared(buffer, node.payload(), recordBytes);
    if (!unchanged() || !advance(head, head + 1)) {
        return std::nullopt;
    }
    return static_cast<int>(recordBytes);
}

/// The record at `head` is not there yet: 0, unless its writer died in the middle of it.
std::optional<int> CShmBuffer::Internal::skipIfLost(ShmNode& node, uint64_t word, uint64_t head) {
    const uint64_t begunUs = node.timestamp.load(std::memory_order_acquire);
    if (within(begunUs, Orbel::CTime::getCurrentMicroSecond(), kLostWriterUs) ||
        Orbel::processAlive(node.writerPid.load())) {
        return 0;
    }
    // A position that is won but not marked yet shows the time and writer of the last lap.
    if (node.word.load() != word) {
        return std::nullopt;
    }
    ORBEL_LOG_WARN(" node is writing timeout, skip it\n");
    advance(head, head + 1);
    return std::nullopt;
}

bool CShmBuffer::Internal::advance(uint64_t head, uint64_t to) {
    return ownSlot().head.compareExchange(head, to);
}

}  // namespace Vantel::Memory
