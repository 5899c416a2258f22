#pragma once

#include <cstdint>
#include <string>

#include "frame/base/NamedSegment.h"

namespace Vantel::Memory {

/// The segment of a ring or a triple buffer: the steps that these take with it alike, each with
/// its line in the log when it fails. One thread at a time.
class ShmSegment {
public:
    static constexpr mode_t kMode = 0666;

    explicit ShmSegment(const std::string& path) : mSegment(path) {}

    /// Opens the object that exists; says nothing if there is none.
    bool open() { return mSegment.open(kMode); }
    /// Length in bytes of the open object; -1 on failure, and it is closed again.
    off_t length();
    bool map(uint64_t sizeBytes);
    /// Opens the object that exists and maps its whole length.
    bool openWhole();
    /// Makes the object anew, in place of one that exists, and maps it.
    bool createNew(uint64_t sizeBytes);
    /// False with the mapping kept.
    bool unmap();
    /// True also if the name was gone already.
    static bool unlink(const std::string& path);

    const char* path() const { return mSegment.name().c_str(); }
    /// Open from open() to map(), closed by that; the number that createNew() had is for its log.
    int descriptor() const { return mSegment.descriptor(); }
    int createdDescriptor() const { return mCreatedFd; }
    bool mapped() const { return mSegment.mapped(); }
    std::byte* address() const { return static_cast<std::byte*>(mSegment.address()); }
    uint64_t size() const { return mSegment.size(); }

private:
    Orbel::NamedSegment mSegment;
    int mCreatedFd = -1;
};

}  // namespace Vantel::Memory
