#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include "frame/base/FileLock.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

/// Runs `create` while no other creator of the same segment, in whatever process, is in it.
/// False, with a line in the log, without the lock; otherwise what `create` returned.
template <class Create>
bool withCreatorLock(const std::string& path, Create&& create) {
    FileLock file;
    if (!file.open(path.c_str())) {
        ORBEL_LOG_ERROR("open file %s failed\n", path.c_str());
        return false;
    }
    if (!file.lock()) {
        ORBEL_LOG_ERROR("file lock failed: %s\n", std::strerror(errno));
        return false;
    }
    const bool created = create();
    if (!file.unlock()) {
        ORBEL_LOG_ERROR("file unlock failed: %s\n", std::strerror(errno));
    }
    return created;
}

}  // namespace Vantel::Orbel
