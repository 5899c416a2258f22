#pragma once

#include <memory>
#include <optional>
#include <string>

#include "ipc/SegmentLayout.h"

namespace Vantel::Orbel {

class DomainSegment;
class SharedMemory;

/// A node as it was found in the table. Keeps the segment mapped.
struct NodeEntry {
    std::shared_ptr<DomainSegment> segment;
    unsigned int slot = 0;
    unsigned long nodeId = 0;
    std::string name;  ///< as stored, at most 63 characters

    /// The slot still belongs to this node. False for an empty entry.
    bool current() const;
};

/// A domain's segment, mapped in this process, and what is asked of its tables.
///
/// Whoever holds a pointer into it co-owns it: nodes and proxies may outlive the domain object.
/// Threads: any. Names are read and written under the segment's lock only; the other fields are
/// atomic words.
class DomainSegment : public std::enable_shared_from_this<DomainSegment> {
public:
    /// Holds the segment's lock for the length of a scope. A robust lock that cannot be had (the
    /// segment was damaged) leaves held() false.
    class Lock {
    public:
        explicit Lock(DomainSegment& segment);
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        ~Lock();
        bool held() const { return mHeld; }

    private:
        SHMMutex& mMutex;
        const bool mHeld;
    };

    /// Maps the segment of the domain, and fills it in if it is new. The caller holds the domain's
    /// process mutex. Null, with a line in the log, if it cannot be had or is not a domain's.
    static std::shared_ptr<DomainSegment> open(const std::string& domainName);

    explicit DomainSegment(std::shared_ptr<SharedMemory> memory);

    DomainHeader& header() const { return *mHeader; }
    /// `slot` and `poolId` below 32.
    NodeInfo& node(unsigned int slot) const { return mHeader->nodes[slot]; }
    PoolInfo& pool(unsigned int poolId) const { return mHeader->pools[poolId]; }

    /// Takes the first free slot of the node table, under the lock.
    std::optional<unsigned int> claimSlot();
    /// Writes a node of this process into the slot that it claimed, under the lock.
    void fillSlot(unsigned int slot, const std::string& name, unsigned long nodeId);
    /// Clears an entry and makes its slot free, under the lock.
    void freeSlot(unsigned int slot);

    /// The slot of the node with this id; an id of 0 is nobody's.
    std::optional<unsigned int> findNode(unsigned long nodeId) const;
    /// The node with this id, if it is alive. Takes the lock.
    std::optional<NodeEntry> findAliveNode(unsigned long nodeId);

    bool nodeAlive(unsigned long nodeId) const;
    bool nodeAlive(unsigned int slot, unsigned int tag) const;

private:
    void initDomainSharedMemory(const std::string& domainName);
    bool loadDomainSharedMemory();

    std::shared_ptr<SharedMemory> mMemory;
    DomainHeader* mHeader = nullptr;
};

}  // namespace Vantel::Orbel
