#include "memory/share/MemoryRefer.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <mutex>

#include "frame/base/Require.h"
#include "memory/share/LocalMemory.h"

namespace Vantel::Memory {

namespace {

constexpr uint32_t kRoundsToClaim = 2;   // rounds of cleaning that a description has
constexpr int64_t kNoBlock = INT64_MIN;  // no offset of 31 bits

MemoryReferPrivData& privateOf(const MemoryRefer* thiz) {
    ORBEL_REQUIRE(thiz != nullptr, "thiz != osNullptr\n");
    ORBEL_REQUIRE(thiz->internal != nullptr, "thiz->internal != osNullptr\n");
    return *thiz->internal;
}

/// The references under their lock.
class Refers {
public:
    explicit Refers(const MemoryRefer* thiz)
        : mPriv(privateOf(thiz)), mGuard(mPriv.mutex), mArea(buddyDataArea(mPriv.buddy)) {}

    ReferNode* find(int32_t offset) const;
    ReferNode* add(int32_t offset) const;
    PidNode* findPid(ReferNode& node, int32_t pid) const;

    bool empty() const { return listEmpty(mPriv.nodes); }
    size_t count() const { return listCount(mPriv.nodes, mArea); }
    int32_t addPid(ReferNode& node) const;
    void removePid(ReferNode& node, PidNode* holder) const;
    size_t pidCount(const ReferNode& node) const { return listCount(&node.pidList, mArea); }
    /// Removes the holders that don't exist any more.
    void removeDead(ReferNode& node) const;

    /// Frees the block and the node; the latter unless something refers to it.
    void freeBlock(ReferNode* node) const;
    void freeIfUnreferred(ReferNode* node) const;

    /// Calls `visit(ReferNode*)` for each; it may free the node.
    template <class Visit>
    void forEach(Visit&& visit) const {
        listFind(mPriv.nodes, mArea, [&](List* link) {
            if (ReferNode* const node = nodeOf(link)) {
                visit(node);
            }
            return false;
        });
    }

private:
    ReferNode* nodeOf(List* link) const {
        return listRecord<ReferNode>(link, offsetof(ReferNode, link), mArea);
    }
    PidNode* pidNodeOf(List* link) const {
        return listRecord<PidNode>(link, offsetof(PidNode, link), mArea);
    }
    void* allocate(size_t size) const;

    MemoryReferPrivData& mPriv;
    const std::lock_guard<ProcessMutex> mGuard;
    const ListArea mArea;
};

ReferNode* Refers::find(int32_t offset) const {
    List* const link = listFind(mPriv.nodes, mArea, [&](List* at) {
        const ReferNode* const node = nodeOf(at);
        return node != nullptr && node->offset == offset;
    });
    return link == nullptr ? nullptr : nodeOf(link);
}

PidNode* Refers::findPid(ReferNode& node, int32_t pid) const {
    List* const link = listFind(&node.pidList, mArea, [&](List* at) {
        const PidNode* const holder = pidNodeOf(at);
        return holder != nullptr && holder->pid == pid;
    });
    return link == nullptr ? nullptr : pidNodeOf(link);
}

void* Refers::allocate(size_t size) const {
    void* const memory = mPriv.smallMem->alloc(mPriv.smallMem, static_cast<int32_t>(size));
    if (memory == nullptr) {
        ORBEL_LOG_ERROR("allocSmallMem with size %zu failed.\n", size);
    }
    return memory;
}

ReferNode* Refers::add(int32_t offset) const {
    auto* const node = static_cast<ReferNode*>(allocate(sizeof(ReferNode)));
    if (node == nullptr) {
        return nullptr;
    }
    node->offset = offset;
    node->deliverRef = 0;
    node->expire = 0;
    listInit(&node->pidList, nullptr);
    if (!listInsert(mPriv.nodes, &node->link, mArea)) {
        mPriv.smallMem->free(mPriv.smallMem, node);
        return nullptr;
    }
    return node;
}

int32_t Refers::addPid(ReferNode& node) const {
    auto* const holder = static_cast<PidNode*>(allocate(sizeof(PidNode)));
    if (holder == nullptr) {
        return -1;
    }
    holder->pid = getpid();
    if (!listInsert(&node.pidList, &holder->link, mArea)) {
        mPriv.smallMem->free(mPriv.smallMem, holder);
        return -1;
    }
    return 0;
}

void Refers::removePid(ReferNode& node, PidNode* holder) const {
    if (listRemove(&node.pidList, &holder->link, mArea)) {
        mPriv.smallMem->free(mPriv.smallMem, holder);
    }
}

void Refers::removeDead(ReferNode& node) const {
    listFind(&node.pidList, mArea, [&](List* link) {
        PidNode* const holder = pidNodeOf(link);
        // One that may not be signalled counts as dead, as it stands. What is no process id would
        // address groups.
        if (holder != nullptr && (holder->pid <= 0 || kill(holder->pid, 0) != 0)) {
            removePid(node, holder);
        }
        return false;
    });
}

void Refers::freeIfUnreferred(ReferNode* node) const {
    if (listEmpty(&node->pidList) && node->deliverRef == 0) {
        freeBlock(node);
    }
}

void Refers::freeBlock(ReferNode* node) const {
    const auto offset = static_cast<uint64_t>(node->offset);
    if (!listRemove(mPriv.nodes, &node->link, mArea)) {
        return;
    }
    // A node that is none any more, of a torn list, must not free a block a second time.
    if (mPriv.smallMem->free(mPriv.smallMem, node) == 0 && offset < mArea.sizeBytes) {
        mPriv.buddy->free(mPriv.buddy, mPriv.dataBaseAddr + offset);
    }
}

constexpr MemoryRefer kFunctions{
    .addRefer = memReferAddReferImp,
    .releaseRefer = memReferReleaseReferImp,
    .getReferCnt = memReferGetReferCntImp,
    .releaseByPid = memReferReleaseByPidImp,
    .incDeliverRef = memReferIncDeliverRefImp,
    .decDeliverRef = memReferDecDeliverRefImp,
    .expireClean = memReferExpireCleanImp,
    .destroy = memReferDestroyImp,
    .internal = nullptr,
};

MemoryReferPrivData* makePrivateData(ZoneHead* head, SmallMemory* smallMem, Buddy* buddy) {
    void* const memory = localAllocate(sizeof(MemoryReferPrivData));
    if (memory == nullptr) {
        return nullptr;
    }
    auto* const dataBase =
        static_cast<uint8_t*>(const_cast<void*>(smallMem->getDataBaseAddr(smallMem)));
    return new (memory) MemoryReferPrivData{&reinterpret_cast<ReferZone*>(head)->nodes, dataBase,
                                            smallMem, buddy, ProcessMutex(kMutexRefer)};
}

}  // namespace

int32_t createMemRefer(ZoneHead* head, SmallMemory* smallMem, Buddy* buddy, MemoryRefer** refer) {
    ORBEL_REQUIRE(head != nullptr && smallMem != nullptr && buddy != nullptr && refer != nullptr,
                  "param is null\n");
    if (!zoneReady(head)) {
        listInit(&reinterpret_cast<ReferZone*>(head)->nodes, nullptr);
        setZoneReady(head);
    }
    MemoryReferPrivData* const priv = makePrivateData(head, smallMem, buddy);
    auto* const table = priv == nullptr ? nullptr : localRecord<MemoryRefer>();
    if (table == nullptr) {
        // With file and line twice, as it stands.
        ORBEL_LOG_ERROR("[%s:%d]malloc failed.\n", "MemoryRefer", __LINE__);
        localRelease(priv);
        return -1;
    }
    *table = kFunctions;
    table->internal = priv;
    *refer = table;
    return 0;
}

int32_t memReferAddReferImp(MemoryRefer* thiz, int32_t offset) {
    const Refers refers(thiz);
    ReferNode* const known = refers.find(offset);
    ReferNode* const node = known != nullptr ? known : refers.add(offset);
    if (node == nullptr) {
        return -1;
    }
    if (refers.addPid(*node) == 0) {
        return 0;
    }
    if (known == nullptr) {
        // It stays until the next cleaning, but names the block no more: the caller gives that
        // back by itself, and somebody else may have it by then.
        node->offset = kNoBlock;
    }
    return -1;
}

int32_t addReferIfKnown(MemoryRefer* thiz, int32_t offset) {
    const Refers refers(thiz);
    ReferNode* const node = refers.find(offset);
    return node == nullptr ? -1 : refers.addPid(*node);
}

int32_t memReferReleaseReferImp(MemoryRefer* thiz, int32_t offset) {
    const Refers refers(thiz);
    ReferNode* const node = refers.find(offset);
    if (node == nullptr) {
        ORBEL_LOG_ERROR("findReferNode for offset[%zu] failed.listCount[%d]",
                        static_cast<size_t>(offset), static_cast<int>(refers.count()));
        return -1;
    }
    if (listEmpty(&node->pidList)) {
        ORBEL_LOG_ERROR("pidListHead for offset[%zu] is empty", static_cast<size_t>(offset));
        return -1;
    }
    const pid_t pid = getpid();
    PidNode* const holder = refers.findPid(*node, pid);
    if (holder == nullptr) {
        std::printf("pidList for offset[%u] has no pidnode[%d].", static_cast<uint32_t>(offset),
                    pid);
        return -1;
    }
    refers.removePid(*node, holder);
    refers.freeIfUnreferred(node);
    return 0;
}

int32_t memReferGetReferCntImp(MemoryRefer* thiz, int32_t offset) {
    const Refers refers(thiz);
    const ReferNode* const node = refers.find(offset);
    return node == nullptr ? 0 : static_cast<int32_t>(refers.pidCount(*node));
}

int32_t memReferReleaseByPidImp(MemoryRefer* thiz, int32_t pid) {
    const Refers refers(thiz);
    refers.forEach([&](ReferNode* node) {
        if (PidNode* const holder = refers.findPid(*node, pid)) {
            refers.removePid(*node, holder);
            refers.freeIfUnreferred(node);
        }
    });
    return 0;
}

int32_t memReferIncDeliverRefImp(MemoryRefer* thiz, int32_t offset) {
    const Refers refers(thiz);
    ReferNode* const node = refers.find(offset);
    if (node == nullptr) {
        return -1;
    }
    ++node->deliverRef;
    node->expire = kRoundsToClaim;
    return 0;
}

int32_t memReferDecDeliverRefImp(MemoryRefer* thiz, int32_t offset) {
    const Refers refers(thiz);
    ReferNode* const node = refers.find(offset);
    if (node == nullptr || node->deliverRef == 0) {
        return -1;
    }
    --node->deliverRef;
    return 0;
}

int32_t memReferExpireCleanImp(MemoryRefer* thiz) {
    const Refers refers(thiz);
    if (refers.empty()) {
        return -1;
    }
    refers.forEach([&](ReferNode* node) {
        // The count wraps while a holder lives, as it stands: then only the next description
        // starts it again.
        if (node->deliverRef != 0 && --node->expire == 0 && listEmpty(&node->pidList)) {
            refers.freeBlock(node);
            return;
        }
        refers.removeDead(*node);
        refers.freeIfUnreferred(node);
    });
    return 0;
}

int32_t memReferDestroyImp(MemoryRefer* thiz) {
    ORBEL_REQUIRE(thiz != nullptr, "thiz != osNullptr\n");
    localRelease(thiz->internal);
    localRelease(thiz);
    return 0;
}

}  // namespace Vantel::Memory
