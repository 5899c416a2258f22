#include "memory/MemoryManagerInternal.h"

#include "Vantel/Utils/Bits.h"
#include "frame/base/Assert.h"
#include "memory/IMemoryHandle.h"

namespace Vantel::Memory {

// Constant-initialised and without a destructor that does anything: there from the first
// instruction of the process to the last.
MemoryManagerInternal& MemoryManagerInternal::instance() {
    static constinit MemoryManagerInternal manager;
    return manager;
}

IMemoryHandle& MemoryManagerInternal::handle() const {
    ORBEL_ASSERT(mHandle != nullptr);
    return *mHandle;
}

uint32_t MemoryManagerInternal::getMemorySize() {
    return handle().getMemorySize();
}
uint32_t MemoryManagerInternal::getFreeSize() {
    return handle().getFreeSize();
}
void MemoryManagerInternal::printNodes() {
    handle().printNodes();
}
void* MemoryManagerInternal::malloc(int size) {
    return handle().malloc(size);
}
void MemoryManagerInternal::free(void* block) {
    handle().free(block);
}
void* MemoryManagerInternal::memcpy(void* to, const void* from, int size) {
    return handle().memcpy(to, from, size);
}

void MemoryManagerInternal::configure(MemoryPolicy policy, int32_t alignSize,
                                      IMemoryHandle* handle) {
    mAlignSize = int32_t{1} << Utils::log2Int(static_cast<uint32_t>(alignSize));
    mPolicy = policy;
    mHandle = handle;
}

}  // namespace Vantel::Memory
