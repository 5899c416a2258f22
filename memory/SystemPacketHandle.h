#pragma once

#include "Vantel/Memory/InitializeMemory.h"
#include "memory/IMemoryHandle.h"

namespace Vantel::Memory {

/// Straight to the operators; keeps no books, so it knows no sizes.
class SystemPacketHandle final : public IMemoryHandle {
public:
    SystemPacketHandle(const MemoryOperator& op, const MemoryParameter& param)
        : mOperator(op), mParameter(param) {}

    void* malloc(int& size) override;
    void free(void* block) override;
    void* memcpy(void* to, const void* from, int size) override;
    uint32_t getMemorySize() override;
    uint32_t getFreeSize() override;
    void printNodes() override;

private:
    MemoryOperator mOperator;
    MemoryParameter mParameter;
};

}  // namespace Vantel::Memory
