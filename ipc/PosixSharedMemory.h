#pragma once

#include "ipc/SharedMemory.h"

namespace Vantel::Orbel {

/// SharedMemory over shm_open and mmap.
class PosixSharedMemory : public SharedMemory {
public:
    explicit PosixSharedMemory(const std::string& name) : SharedMemory(name) {}
    ~PosixSharedMemory() override;

    bool openCreate(unsigned int size) override;
    bool openOnly() override;
    bool reset() override;
    bool remove() override;
};

}  // namespace Vantel::Orbel
