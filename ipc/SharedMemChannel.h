#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Vantel/Orbel/CProcessMutex.h"
#include "ipc/SegmentLayout.h"

namespace Vantel::Orbel {

class SharedDomainImpl;
class SharedMemNodeImpl;
class SharedMemory;

/// What reader and writer of a channel have in common: the id made from its name, and the status
/// segment in which both enter themselves. A reader's entry there is the whole subscription.
///
/// The segment's name holds no domain: a channel name means one channel on the whole machine. Two
/// names with one hash are one channel too; nothing detects that.
///
/// Threads: any, after createStatusMemory(); that one once and from one thread.
class SharedMemChannel {
public:
    /// `node` must be alive, and so must its domain. `name` must not be empty: CProcessMutex ends
    /// the process otherwise.
    SharedMemChannel(const std::string& name, std::weak_ptr<SharedMemNodeImpl> node);
    /// Unmaps the status segment. Taking the entries out is for the derived channel's close().
    virtual ~SharedMemChannel();
    SharedMemChannel(const SharedMemChannel&) = delete;
    SharedMemChannel& operator=(const SharedMemChannel&) = delete;

    /// The same in every process and build.
    static unsigned long generateChannelId(const std::string& name);
    std::string generateShmName(bool status) const;
    unsigned int calculateStatusSize() const { return kChannelSegmentSize; }

    /// Makes or attaches the status segment; status() is set from then on.
    bool createStatusMemory();
    /// Its two steps, under the process mutex, with the segment mapped.
    bool initStatusMemory();
    bool loadStatusMemory();

    /// Enters this node in the first entry that is free or whose node has died. False if there is
    /// none. Does not look for an entry it may have already.
    bool registerReader();
    bool registerWriter();
    /// Clears the first entry of `nodeId`; false if there is none.
    bool unregisterReader(unsigned long nodeId);
    bool unregisterWriter(unsigned long nodeId);

    /// Sends data finish to the writer of a block that its last reader has left.
    bool notifyWriterDataFinished(BlockHeader* block);
    /// The same for the incarnation that the caller had claimed. True, with nothing sent, if the
    /// block has moved on: then there is nothing left to report.
    bool notifyWriterDataFinished(BlockHeader* block, unsigned long sequence);

protected:
    /// Null until createStatusMemory() has succeeded.
    ChannelStatus* status() const { return mStatus.load(std::memory_order_acquire); }

    unsigned long mNodeId = 0;
    unsigned int mWriterSlot = 0;
    unsigned int mWriterTag = 0;
    unsigned long mChannelId = 0;
    std::string mName;
    CProcessMutex mProcessMutex;
    std::weak_ptr<SharedDomainImpl> mDomain;
    std::atomic<ChannelStatus*> mStatus{nullptr};
    std::shared_ptr<SharedMemory> mMemory;
    std::weak_ptr<SharedMemNodeImpl> mNode;
};

}  // namespace Vantel::Orbel
