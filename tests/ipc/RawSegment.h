#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <string>

#include "frame/base/NamedSegment.h"
#include "frame/base/UniqueFd.h"

namespace OrbelTest {

/// A shared-memory object as a stranger sees it, and forges it behind its owners' backs.
class RawSegment {
public:
    /// The existing object `path`, set to `length` first unless that is 0.
    explicit RawSegment(const std::string& path, size_t length = 0) : mSegment(path) {
        if (mSegment.open(0666) && (length == 0 || mSegment.resize(length))) {
            const off_t found = mSegment.length();
            mSegment.map(static_cast<size_t>(found));
        }
    }
    /// Leaves an object of `length` zeros at `path`, as a maker does that died at once.
    static bool make(const std::string& path, size_t length) {
        const Vantel::Orbel::UniqueFd object(shm_open(path.c_str(), O_RDWR | O_CREAT, 0666));
        return ftruncate(object.get(), static_cast<off_t>(length)) == 0;
    }

    template <class T>
    T& at(size_t offset) {
        return *reinterpret_cast<T*>(static_cast<std::byte*>(mSegment.address()) + offset);
    }
    std::string bytes() const {
        return std::string(static_cast<const char*>(mSegment.address()), size());
    }
    size_t size() const { return mSegment.size(); }
    bool remove() const { return mSegment.unlink(); }

private:
    Vantel::Orbel::NamedSegment mSegment;
};

}  // namespace OrbelTest
