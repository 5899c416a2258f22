#include "Vantel/Memory/IMemoryPool.h"

#include "Vantel/Orbel/ProcessServices.h"
#include "memory/cache/SystemMemoryPool.h"
#include "memory/cache/ThreadMemoryDebugPool.h"
#include "memory/cache/ThreadMemoryPool.h"

namespace Vantel::Memory {

namespace {

constinit ThreadMemoryPool threadPool;
constinit ThreadMemoryDebugPool debugPool;
[[maybe_unused]] constinit SystemMemoryPool systemPool;  // exists; nothing chooses it, as it stands

}  // namespace

IMemoryPool* IMemoryPool::instance() {
    static IMemoryPool* const chosen = Orbel::getEnvVariable("VANTELOS_MEMORY_DEBUG") != nullptr
                                           ? static_cast<IMemoryPool*>(&debugPool)
                                           : &threadPool;
    return chosen;
}

}  // namespace Vantel::Memory
