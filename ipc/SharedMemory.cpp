#include "ipc/SharedMemory.h"

#include "ipc/PosixSharedMemory.h"

namespace Vantel::Orbel {

std::shared_ptr<SharedMemory> SharedMemory::create(const std::string& name) {
    return std::make_shared<PosixSharedMemory>(name);
}

bool SharedMemory::reCreate(unsigned int size) {
    remove();
    return openCreate(size);
}

bool SharedMemory::remap() {
    reset();
    return openOnly();
}

}  // namespace Vantel::Orbel
