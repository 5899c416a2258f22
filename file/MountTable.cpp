#include "file/MountTable.h"

#include <cstring>

#include "file/FileDefaultOpt.h"
#include "frame/base/CopyName.h"

namespace Vantel::Orbel {

namespace {

struct Mount {
    char prefix[256];  // empty: the place is free
    IFileSystem* fileSystem;

    bool free() const { return prefix[0] == '\0'; }
};

constinit Mount mounts[31] = {};

}  // namespace

void hookFileSystem(const char* prefix, IFileSystem* fs) {
    if (prefix == nullptr) {
        return;
    }
    for (Mount& mount : mounts) {
        if (fs != nullptr && mount.free()) {
            copyName(mount.prefix, prefix);
            mount.fileSystem = fs;
            return;
        }
        // A prefix that was cut when it was stored equals nothing of its old length any more.
        if (fs == nullptr && !mount.free() &&
            std::strncmp(mount.prefix, prefix, sizeof mount.prefix) == 0) {
            mount = {};
            return;
        }
    }
}

IFileSystem* _findOpts(const char* path) {
    if (path != nullptr) {
        for (const Mount& mount : mounts) {
            if (!mount.free() && std::strncmp(mount.prefix, path, std::strlen(mount.prefix)) == 0) {
                return mount.fileSystem;
            }
        }
    }
    return FileDefaultOpt::instance();
}

}  // namespace Vantel::Orbel
