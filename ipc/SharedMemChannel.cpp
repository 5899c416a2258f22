#include "ipc/SharedMemChannel.h"

#include <cstdio>
#include <new>

#include "frame/base/Assert.h"
#include "frame/base/Log.h"
#include "frame/base/ScopeExit.h"
#include "frame/base/StringHash.h"
#include "ipc/PipeMessage.h"
#include "ipc/ProcessLock.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemory.h"

namespace Vantel::Orbel {

namespace {

/// Enters `nodeId` in the first entry, in table order, that is free or whose node has died.
/// Under the segment's lock.
template <size_t N>
bool enterId(SharedField<uint64_t> (&ids)[N], uint64_t nodeId, NodeDirectory& nodes) {
    for (SharedField<uint64_t>& entry : ids) {
        const uint64_t holder = entry.load();
        if (holder == 0 || !nodes.checkNodeAlive(holder)) {
            entry.store(nodeId);
            return true;
        }
    }
    return false;
}

template <size_t N>
bool removeId(SharedField<uint64_t> (&ids)[N], uint64_t nodeId) {
    for (SharedField<uint64_t>& entry : ids) {
        if (entry.load() == nodeId) {
            entry.store(0);
            return true;
        }
    }
    return false;
}

/// Runs `work` on the segment with its lock held; false without a segment or if it cannot be had.
template <class Work>
bool underLock(ChannelStatus* status, Work&& work) {
    if (status == nullptr || !status->lock.enter()) {
        return false;
    }
    const ScopeExit leave([status] { status->lock.leave(); });
    return work(*status);
}

}  // namespace

SharedMemChannel::SharedMemChannel(const std::string& name, std::weak_ptr<SharedMemNodeImpl> node)
    : mChannelId(generateChannelId(name)),
      mName(name),
      mProcessMutex(name.c_str()),
      mMemory(SharedMemory::create(generateShmName(true))),
      mNode(std::move(node)) {
    const auto owner = mNode.lock();
    ORBEL_ASSERT(owner != nullptr);
    mNodeId = owner->nodeId();
    mWriterSlot = owner->slot();
    mWriterTag = owner->tag();
    mDomain = owner->getDomain();
}

SharedMemChannel::~SharedMemChannel() {
    mMemory->reset();
}

unsigned long SharedMemChannel::generateChannelId(const std::string& name) {
    return stringHash("/shmipc/channel/" + name);
}

std::string SharedMemChannel::generateShmName(bool status) const {
    return "/shmipc_channel_" + mName + (status ? "_status" : "_data");
}

bool SharedMemChannel::createStatusMemory() {
    const ProcessLock lock(mProcessMutex);
    if (!lock.held() || !mMemory->openCreate(calculateStatusSize())) {
        return false;
    }
    if (!initStatusMemory() || !loadStatusMemory()) {
        std::printf("init status shared memory channel %s failed\n", mName.c_str());
        return false;
    }
    return true;
}

bool SharedMemChannel::initStatusMemory() {
    auto* segment = static_cast<ChannelStatus*>(mMemory->baseAddress());
    // Too short or with a foreign magic: for loadStatusMemory() to refuse.
    if (mMemory->size() < sizeof *segment || segment->magic.load() != 0) {
        return true;
    }
    ORBEL_LOG_INFO(" Initializing param shared memory for channel %s\n", mName.c_str());
    segment->reserved = 0;
    new (&segment->lock) SHMMutex;
    for (SharedField<uint64_t>& entry : segment->writerIds) {
        entry.store(0);
    }
    for (SharedField<uint64_t>& entry : segment->readerIds) {
        entry.store(0);
    }
    segment->magic.store(kChannelMagic);  // last: who finds it finds all of the above
    return true;
}

bool SharedMemChannel::loadStatusMemory() {
    auto* segment = static_cast<ChannelStatus*>(mMemory->baseAddress());
    if (mMemory->size() < sizeof *segment || segment->magic.load() != kChannelMagic) {
        ORBEL_LOG_ERROR("Invalid channel status magic for channel %s\n", mName.c_str());
        return false;
    }
    mStatus.store(segment, std::memory_order_release);
    return true;
}

bool SharedMemChannel::registerReader() {
    const auto domain = mDomain.lock();
    return domain != nullptr && underLock(status(), [&](ChannelStatus& segment) {
               return enterId(segment.readerIds, mNodeId, *domain);
           });
}

bool SharedMemChannel::registerWriter() {
    const auto domain = mDomain.lock();
    return domain != nullptr && underLock(status(), [&](ChannelStatus& segment) {
               return enterId(segment.writerIds, mNodeId, *domain);
           });
}

bool SharedMemChannel::unregisterReader(unsigned long nodeId) {
    return underLock(
        status(), [nodeId](ChannelStatus& segment) { return removeId(segment.readerIds, nodeId); });
}

bool SharedMemChannel::unregisterWriter(unsigned long nodeId) {
    return underLock(
        status(), [nodeId](ChannelStatus& segment) { return removeId(segment.writerIds, nodeId); });
}

bool SharedMemChannel::notifyWriterDataFinished(BlockHeader* block) {
    return block != nullptr && notifyWriterDataFinished(block, block->status.stateWord().sequence);
}

bool SharedMemChannel::notifyWriterDataFinished(BlockHeader* block, unsigned long sequence) {
    const auto node = mNode.lock();
    if (node == nullptr || block == nullptr) {
        return false;
    }
    BlockStatus& status = block->status;
    const StateWord word = status.stateWord();
    if (word.sequence != sequence) {
        return true;
    }
    const ReaderMasks masks = status.readerMasks();
    if (word.state != BlockState::Ready || !masks.empty()) {
        ORBEL_LOG_ERROR(
            "SharedMemChannel notifyWriterDataFinished block index %d state %d, readerMask %d, "
            "claimMask %d, readRef %d\n",
            static_cast<int>(block->locationWord().blockIndex), static_cast<int>(word.state),
            static_cast<int>(masks.read), static_cast<int>(masks.claim),
            static_cast<int>(status.readRef.load()));
        return false;
    }
    // If the block moves on from here, the writer finds the sequence stale and drops the message.
    const unsigned long writerId = status.writerId.load(std::memory_order_relaxed);
    PipeMessage message = PipeMessage::make(PipeAction::DataFinish, block->locationWord(),
                                            mChannelId, writerId, sequence);
    if (!node->notifyWriter(writerId, message)) {
        ORBEL_LOG_ERROR("SharedMemChannel notifyWriterDataFinished notify writer failed\n");
        return false;
    }
    return true;
}

}  // namespace Vantel::Orbel
