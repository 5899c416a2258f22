#include "memory/cache/SystemMemoryAccounting.h"

#include <sys/mman.h>

#include <cstdlib>

#include "Vantel/Orbel/ProcessServices.h"
#include "memory/cache/SizeClass.h"

namespace Vantel::Memory {

void* mapPages(size_t pages) {
    void* address = ::mmap(nullptr, pages << kPageShift, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return address == MAP_FAILED ? nullptr : address;
}

void unmapPages(void* address, size_t pages) {
    ::munmap(address, pages << kPageShift);
}

uint32_t pagesFromEnvironment(const char* name, uint32_t missing) {
    const char* text = Orbel::getEnvVariable(name);
    return text == nullptr ? missing : static_cast<uint32_t>(std::strtol(text, nullptr, 10));
}

SystemMemoryAccounting::SystemMemoryAccounting()
    : mPageLimit(pagesFromEnvironment("MEMORY_PAGE_LIMITED", 0)) {}

void* SystemMemoryAccounting::allocPages(size_t pages) {
    if (mPageLimit != 0 && mPageLimit < pagesInUse()) {
        return nullptr;
    }
    void* address = mapPages(pages);
    if (address != nullptr) {
        mPagesInUse.fetch_add(static_cast<uint32_t>(pages), std::memory_order_relaxed);
    }
    return address;
}

void SystemMemoryAccounting::freePages(void* address, size_t pages) {
    unmapPages(address, pages);
    mPagesInUse.fetch_sub(static_cast<uint32_t>(pages), std::memory_order_relaxed);
}

}  // namespace Vantel::Memory
