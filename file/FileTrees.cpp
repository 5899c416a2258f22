// The operations of File on whole trees. They work on the system's own directories and know no
// mounts, but for the files that are copied.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "Vantel/Orbel/File.h"
#include "file/DirectoryNames.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

namespace {

using Names = std::vector<std::string>;

/// What a directory is, by whatever path: device and inode.
using Identity = std::pair<dev_t, ino_t>;

constexpr size_t kMaxPath = 1024;  // with the terminator

/// "<directory>/<name>". False if that is too long: cut, it could name something else.
bool join(const std::string& directory, const std::string& name, std::string& path) {
    path = directory + "/" + name;
    return path.size() < kMaxPath;
}

Identity identity(const struct stat& status) {
    return {status.st_dev, status.st_ino};
}

bool contains(const std::vector<Identity>& all, const Identity& one) {
    return std::find(all.begin(), all.end(), one) != all.end();
}

bool removeTree(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        ORBEL_LOG_ERROR("get directory %s stat error\n", path.c_str());
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        return ::remove(path.c_str()) == 0;
    }
    Names names;
    directoryNames(path.c_str(), O_NOFOLLOW, names);  // what it does not tell, rmdir finds
    for (const std::string& name : names) {
        std::string entry;
        if (!join(path, name, entry) || !removeTree(entry)) {
            ORBEL_LOG_ERROR("remove directory path %s failed\n", entry.c_str());
            return false;
        }
    }
    return ::rmdir(path.c_str()) == 0;
}

/// `above` are the directories on the way down: a link that leads to one of them is not followed.
bool removeEmptyBelow(const std::string& path, int seconds, std::vector<Identity>& above) {
    Names names;
    if (!directoryNames(path.c_str(), 0, names)) {
        ORBEL_LOG_ERROR("open dir %s failed: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    const time_t now = time(nullptr);
    bool allDone = true;
    for (const std::string& name : names) {
        std::string entry;
        struct stat status {};
        if (!join(path, name, entry)) {
            errno = ENAMETOOLONG;
        }
        if (entry.size() >= kMaxPath || ::stat(entry.c_str(), &status) != 0) {
            ORBEL_LOG_ERROR("get dir %s stat failed: %s\n", entry.c_str(), std::strerror(errno));
            allDone = false;
            continue;
        }
        if (!S_ISDIR(status.st_mode) || contains(above, identity(status))) {
            continue;
        }
        above.push_back(identity(status));
        allDone = removeEmptyBelow(entry, seconds, above) && allDone;
        above.pop_back();
        if (!File::isEmptyDir(entry.c_str()) || now - status.st_mtime <= seconds) {
            continue;
        }
        if (::rmdir(entry.c_str()) != 0) {
            ORBEL_LOG_ERROR("rmdir %s failed: %s\n", entry.c_str(), std::strerror(errno));
            allDone = false;
        }
    }
    return allDone;
}

bool copyTree(const std::string& from, const std::string& to, std::vector<Identity>& above);

bool copyEntry(const std::string& from, const std::string& to, std::vector<Identity>& above) {
    struct stat status {};
    if (::stat(from.c_str(), &status) != 0) {
        return false;
    }
    if (S_ISDIR(status.st_mode)) {
        return copyTree(from, to, above);
    }
    // To open a pipe would wait for its writer.
    return S_ISREG(status.st_mode) && File::copy(from.c_str(), to.c_str(), 0x1002);
}

/// `above` are the target and the directories on the way down, none of which may come again.
bool copyTree(const std::string& from, const std::string& to, std::vector<Identity>& above) {
    struct stat status {};
    Names names;
    if (::stat(from.c_str(), &status) != 0 || !directoryNames(from.c_str(), 0, names)) {
        ORBEL_LOG_ERROR("source path not found!\n");
        return false;
    }
    if (!File::isDirectory(to.c_str()) && !File::makeDirectoryWithParent(to.c_str())) {
        ORBEL_LOG_ERROR("Create Dir Failed...\n");
        return false;
    }
    if (above.empty()) {
        struct stat target {};
        if (::stat(to.c_str(), &target) == 0) {
            above.push_back(identity(target));
        }
    }
    if (contains(above, identity(status))) {
        ORBEL_LOG_ERROR("Copy From %s To %s fail!\n", from.c_str(), to.c_str());
        return false;
    }
    above.push_back(identity(status));
    for (const std::string& name : names) {
        std::string source;
        std::string target;
        const bool fits = join(from, name, source) && join(to, name, target);
        if (!fits || !copyEntry(source, target, above)) {
            ORBEL_LOG_ERROR("Copy From %s To %s fail!\n", source.c_str(), target.c_str());
            return false;
        }
    }
    above.pop_back();
    return true;
}

}  // namespace

bool File::removeDirectoryForce(const char* path) {
    return path != nullptr && path[0] != '\0' && removeTree(path);
}

bool File::removeEmptyDirs(const char* path, int seconds) {
    if (path == nullptr || path[0] == '\0') {
        return false;
    }
    std::vector<Identity> above;
    struct stat status {};
    if (::stat(path, &status) == 0) {
        above.push_back(identity(status));
    }
    return removeEmptyBelow(path, seconds, above);
}

bool File::copyDirectoryForce(const char* from, const char* to) {
    if (from == nullptr || from[0] == '\0' || to == nullptr || to[0] == '\0') {
        return false;
    }
    std::vector<Identity> above;
    return copyTree(from, to, above);
}

}  // namespace Vantel::Orbel
