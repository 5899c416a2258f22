#include "Vantel/Memory/MemoryManager.h"

#include "memory/MemoryManagerInternal.h"

namespace Vantel::Memory {

MemoryManager* MemoryManager::instance() {
    static MemoryManager manager;
    return &manager;
}

uint32_t MemoryManager::getMemorySize() {
    return MemoryManagerInternal::instance().getMemorySize();
}

uint32_t MemoryManager::getFreeSize() {
    return MemoryManagerInternal::instance().getFreeSize();
}

void MemoryManager::printNodes() {
    MemoryManagerInternal::instance().printNodes();
}

void* MemoryManager::malloc(int sizeBytes) {
    return MemoryManagerInternal::instance().malloc(sizeBytes);
}

void* MemoryManager::memcpy(void* to, const void* from, int sizeBytes) {
    return MemoryManagerInternal::instance().memcpy(to, from, sizeBytes);
}

void MemoryManager::free(void* block) {
    MemoryManagerInternal::instance().free(block);
}

}  // namespace Vantel::Memory
