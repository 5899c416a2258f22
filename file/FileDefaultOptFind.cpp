// The part of the default table that describes files and searches directories.
#include <dirent.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "file/FileDefaultOpt.h"
#include "frame/base/CopyName.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

namespace {

void fill(FileInfo& info, const char* name, const struct stat& status) {
    copyName(info.name, name);
    info.attr = static_cast<uint16_t>((S_ISDIR(status.st_mode) ? FileInfo::kDirectory : 0) |
                                      ((status.st_mode & S_IWUSR) == 0 ? FileInfo::kReadOnly : 0));
    info.nlink = static_cast<uint16_t>(status.st_nlink);
    info.uid = status.st_uid;
    info.gid = status.st_gid;
    info.mode = status.st_mode;
    info.createAt = status.st_ctime;
    info.accessAt = status.st_atime;
    info.writeAt = status.st_mtime;
    info.size = status.st_size;
}

DIR* directory(long handle) {
    return reinterpret_cast<DIR*>(handle);
}

bool valid(long handle) {
    return handle != 0 && handle != -1;
}

}  // namespace

int FileDefaultOpt::stat(const char* path, FileInfo& info) {
    struct stat status {};
    const int result = ::stat(path, &status);
    if (result == 0) {
        fill(info, path, status);
        ORBEL_LOG_DEBUG("stat info attr %d,writeAt %lld accessAt %lld createAt %lld size %lld\n",
                        info.attr, static_cast<long long>(info.writeAt),
                        static_cast<long long>(info.accessAt),
                        static_cast<long long>(info.createAt), static_cast<long long>(info.size));
    }
    return result;
}

long FileDefaultOpt::findfirst(const char* pattern, FileInfo& info) {
    char path[256];
    copyName(path, pattern);
    const size_t length = std::strlen(path);
    if (length > 0 && path[length - 1] == '*') {
        path[length - 1] = '\0';
    }
    DIR* opened = opendir(path);
    if (opened == nullptr) {
        return -1;
    }
    const long handle = reinterpret_cast<long>(opened);
    if (findnext(handle, info) == -1) {
        closedir(opened);
        return -1;
    }
    return handle;
}

int FileDefaultOpt::findnext(long handle, FileInfo& info) {
    if (!valid(handle)) {
        return -1;
    }
    const dirent* entry = readdir(directory(handle));
    while (entry != nullptr && entry->d_reclen > 255) {  // names of 229 bytes and more: meant
        entry = readdir(directory(handle));
    }
    if (entry == nullptr) {
        return -1;
    }
    const std::string path = std::string(info.name) + "/" + entry->d_name;
    struct stat status {};
    static_cast<void>(::stat(path.c_str(), &status));  // a dangling link: all zeros
    fill(info, entry->d_name, status);
    return 0;
}

int FileDefaultOpt::findclose(long handle) {
    return valid(handle) ? closedir(directory(handle)) : -1;
}

}  // namespace Vantel::Orbel
