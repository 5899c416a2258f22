#pragma once

#include <memory>
#include <string>

#include "frame/base/NamedSegment.h"

namespace Vantel::Orbel {

/// One named shared-memory object and its mapping in this process.
/// Says on standard output what failed. One thread at a time.
class SharedMemory {
public:
    /// `name` with its leading slash. Nothing is opened or mapped yet.
    static std::shared_ptr<SharedMemory> create(const std::string& name);

    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    /// Unmaps; the object stays.
    virtual ~SharedMemory() = default;
    /// Makes the object with `size` bytes and maps it. One that exists is mapped at the size it
    /// has, whatever was asked for: check size(). True at once while mapped.
    virtual bool openCreate(unsigned int size) = 0;
    /// Maps an existing object at the size it has. True at once while mapped.
    virtual bool openOnly() = 0;
    /// Unmaps. False if nothing is mapped, or with the mapping kept if it failed.
    virtual bool reset() = 0;
    /// Unmaps if mapped, then removes the name.
    virtual bool remove() = 0;

    /// remove(), then the result of openCreate().
    bool reCreate(unsigned int size);
    /// reset(), then the result of openOnly().
    bool remap();

    /// Bytes mapped, narrowed to 32 bits; 0 while unmapped.
    unsigned int size() const { return static_cast<unsigned int>(mSegment.size()); }
    /// Start of the mapping; null while unmapped.
    void* baseAddress() const { return mSegment.address(); }

protected:
    explicit SharedMemory(const std::string& name) : mSegment(name) {}

    NamedSegment mSegment;
};

}  // namespace Vantel::Orbel
