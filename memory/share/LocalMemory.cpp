#include "memory/share/LocalMemory.h"

#include <cstdlib>
#include <utility>

namespace Vantel::Memory {

namespace {

constexpr LocalMemoryHooks kSystemHooks{std::malloc, std::free};
constinit LocalMemoryHooks currentHooks = kSystemHooks;

}  // namespace

LocalMemoryHooks exchangeLocalMemoryHooks(LocalMemoryHooks hooks) {
    if (hooks.allocate == nullptr) {
        hooks.allocate = kSystemHooks.allocate;
    }
    if (hooks.release == nullptr) {
        hooks.release = kSystemHooks.release;
    }
    return std::exchange(currentHooks, hooks);
}

void* localAllocate(size_t sizeBytes) {
    return currentHooks.allocate(sizeBytes);
}

void localRelease(void* memory) {
    currentHooks.release(memory);
}

}  // namespace Vantel::Memory
