#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "frame/base/Mapping.h"
#include "frame/base/UniqueFd.h"

namespace Vantel::Orbel {

/// Owns the open descriptor and the mapping of one POSIX shared-memory object, never the object
/// itself: that stays until unlink().
///
/// Each step is its own call, since the owners of the different segments differ in what they say
/// and undo when one fails: create() or open(), resize(), allocate() or length(), map(). All but
/// map() leave what was reached in place. Each returns false with errno set. One thread at a time.
class NamedSegment {
public:
    /// `name` with its leading slash.
    explicit NamedSegment(std::string name) : mName(std::move(name)) {}

    /// Makes the object, which must not exist yet (EEXIST).
    bool create(mode_t mode);
    /// Opens the object, which must exist (ENOENT).
    bool open(mode_t mode);
    /// Sets the length of the open object, zero-filled.
    bool resize(size_t sizeBytes);
    /// The same, with its memory taken at once: a full file system is ENOSPC here, and not a
    /// SIGBUS at some later touch.
    bool allocate(size_t sizeBytes);
    /// The present length of the open object; -1 on failure.
    off_t length() const;
    /// Maps the first `sizeBytes` of the open object for reading and writing, shared, in place of
    /// an earlier mapping. The descriptor is closed, whether it worked or not.
    bool map(size_t sizeBytes);
    /// Gives the descriptor of an open() that is not carried on to map() back.
    void closeDescriptor() { mFd.reset(); }
    /// True without a mapping; false with the mapping kept.
    bool unmap() { return mMapping.reset(); }
    /// Removes the name. Mappings of it stay usable.
    bool unlink() const;

    const std::string& name() const { return mName; }
    int descriptor() const { return mFd.get(); }
    bool mapped() const { return mMapping.valid(); }
    void* address() const { return mMapping.base(); }
    size_t size() const { return mMapping.size(); }

private:
    std::string mName;
    UniqueFd mFd;
    Mapping mMapping;
};

}  // namespace Vantel::Orbel
