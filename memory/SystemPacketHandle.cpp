#include "memory/SystemPacketHandle.h"

#include "Vantel/Orbel/ErrorState.h"
#include "frame/base/Log.h"

namespace Vantel::Memory {

namespace {

constexpr int kNotSupported = 14;  // last error of a question that this handle can't answer
constexpr uint32_t kUnknownSize = 0xFFFFFFFF;

uint32_t unknownSize() {
    Orbel::setLastErrno(kNotSupported);
    return kUnknownSize;
}

}  // namespace

// A negative size is more than any system has, and comes back as null.
void* SystemPacketHandle::malloc(int& size) {
    return mOperator.malloc(static_cast<unsigned long>(size));
}

void SystemPacketHandle::free(void* block) {
    mOperator.free(block);
}

void* SystemPacketHandle::memcpy(void* to, const void* from, int size) {
    return mOperator.memcpy(to, from, static_cast<unsigned long>(size));
}

uint32_t SystemPacketHandle::getMemorySize() {
    return unknownSize();
}

uint32_t SystemPacketHandle::getFreeSize() {
    return unknownSize();
}

void SystemPacketHandle::printNodes() {
    ORBEL_LOG_INFO(" dump node: system policy\n");
}

}  // namespace Vantel::Memory
