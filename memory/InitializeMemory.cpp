#include "Vantel/Memory/InitializeMemory.h"

#include <cstdlib>
#include <cstring>

#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "memory/BuddyMemoryHandle.h"
#include "memory/MemoryManagerInternal.h"
#include "memory/SystemPacketHandle.h"

namespace Vantel::Memory {

namespace {

void* systemMalloc(unsigned long size) {
    return std::malloc(size);
}
void systemFree(void* block) {
    std::free(block);
}
void* systemMemcpy(void* to, const void* from, unsigned long size) {
    return std::memcpy(to, from, size);
}

constexpr MemoryParameter kDefaultParameter{2 * 1024 * 1024, 1024, 2};

bool configured = false;  // plain: initializeMemory() is not for several threads

// The checks hold for each policy, also for the one that uses none of the values.
void requireUsable(const MemoryOperator& op, const MemoryParameter& param) {
    ORBEL_REQUIRE(param.alignSize >= 2, "memory alignSize error\n");
    ORBEL_REQUIRE(param.chunkSize >= 1024 && param.totalSize % param.chunkSize == 0,
                  "param invalid(chunkSize >= 1024,totalSize %% chunkSize == 0)\n");
    ORBEL_REQUIRE(!op.malloc.empty() && !op.free.empty() && !op.memcpy.empty(),
                  "malloc != null && free != null && memcpy != null\n");
}

}  // namespace

void initializeMemory(MemoryPolicy policy, MemoryOperator* op, MemoryParameter* param) {
    if (configured) {
        ORBEL_LOG_WARN(" memory has been configured!\n");
        return;
    }
    MemoryOperator defaultOperator{&systemMalloc, &systemFree, &systemMemcpy};
    const MemoryOperator& operators = op != nullptr ? *op : defaultOperator;
    const MemoryParameter& parameter = param != nullptr ? *param : kDefaultParameter;
    requireUsable(operators, parameter);

    IMemoryHandle* handle = nullptr;
    switch (policy) {
        case policySystem:
            handle = new SystemPacketHandle(operators, parameter);
            break;
        case policyBuddy:
        case policyBuddySplit:
            handle = new BuddyMemoryHandle(operators, parameter);
            break;
        case policyShare:
            break;
        default:
            ORBEL_REQUIRE(policy == policyShare, "not specified memory policy\n");
    }
    MemoryManagerInternal::instance().configure(policy, parameter.alignSize, handle);
    configured = true;
}

void destroyMemory() {}

}  // namespace Vantel::Memory
