// The operations of File on a single path.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "Vantel/Orbel/File.h"
#include "file/DirectoryNames.h"
#include "file/FileDefaultOpt.h"
#include "file/MountTable.h"
#include "file/ParentDirectories.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

namespace {

bool given(const char* path) {
    return path != nullptr && path[0] != '\0';
}

/// One file of the default table by two names, or by one.
bool isSameFile(const char* from, const char* to) {
    const IFileSystem* system = FileDefaultOpt::instance();
    struct stat source {};
    struct stat target {};
    return _findOpts(from) == system && _findOpts(to) == system && ::stat(from, &source) == 0 &&
           ::stat(to, &target) == 0 && S_ISREG(source.st_mode) && source.st_dev == target.st_dev &&
           source.st_ino == target.st_ino;
}

}  // namespace

bool File::rename(const char* from, const char* to) {
    return given(from) && given(to) && _findOpts(from)->rename(from, to) == 0;
}

bool File::remove(const char* path) {
    return given(path) && _findOpts(path)->remove(path) == 0;
}

bool File::makeDirectory(const char* path) {
    return given(path) && _findOpts(path)->mkdir(path) == 0;
}

bool File::removeDirectory(const char* path) {
    return given(path) && _findOpts(path)->rmdir(path) == 0;
}

bool File::access(const char* path, int mode) {
    return given(path) && _findOpts(path)->access(path, mode) == 0;
}

bool File::stat(const char* path, FileInfo& info) {
    return given(path) && _findOpts(path)->stat(path, info) == 0;
}

bool File::exist(const char* path) {
    return access(path, F_OK);
}

bool File::statFS(const char* path, uint64_t& avail, uint64_t& total, uint64_t& free) {
    return _findOpts(path)->statfs(path, avail, total, free) == 0;
}

bool File::isDirectory(const char* path) {
    struct stat status {};
    return given(path) && ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

bool File::isLargerFile(const char* path) {
    FileInfo info{};
    return stat(path, info) && info.size > 0xFFFFFFFE;
}

bool File::isEmptyDir(const char* path) {
    std::vector<std::string> names;
    return given(path) && directoryNames(path, 0, names) && names.empty();
}

bool File::empty(const char* path) {
    FileInfo info{};
    return stat(path, info) && info.size == 0;
}

bool File::makeDirectoryWithParent(const char* path) {
    return makeWithParents(path, &File::exist, &File::makeDirectory);
}

/// A read that fails ends the copy like the end of the file does; only writes decide.
bool File::copy(const char* from, const char* to, uint32_t flags) {
    File source;
    File target;
    if (!given(from) || !given(to) || isSameFile(from, to)) {
        return false;  // to open itself as the target would empty it, or copy without end
    }
    if (!source.open(from, 0) || !target.open(to, flags)) {
        return false;
    }
    char buffer[4096];
    for (int count = source.read(buffer, sizeof buffer); count > 0;
         count = source.read(buffer, sizeof buffer)) {
        if (target.write(buffer, static_cast<size_t>(count)) != count) {
            return false;
        }
    }
    return target.flush() && target.close();
}

bool File::save(const char* path, const void* data, size_t size, uint32_t flags) {
    File file;
    if (!given(path) || !file.open(path, flags)) {
        return false;
    }
    const int count = file.write(data, size);
    return file.close() && count >= 0 && static_cast<size_t>(count) == size;
}

bool File::symlink(const char* from, const char* to) {
    if (!given(from) || !given(to)) {
        return false;
    }
    if (::symlink(from, to) != 0) {
        ORBEL_LOG_ERROR("link %s to %s failed,error message:%s\n", from, to, std::strerror(errno));
        return false;
    }
    return true;
}

void File::syncFile() {
    sync();
}

}  // namespace Vantel::Orbel
