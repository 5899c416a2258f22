#include "file/DirectoryNames.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "frame/base/UniqueFd.h"

namespace Vantel::Orbel {

bool directoryNames(const char* path, int openFlags, std::vector<std::string>& names) {
    UniqueFd fd(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | openFlags));
    if (!fd.valid()) {
        return false;
    }
    const auto close = [](DIR* directory) { closedir(directory); };
    const std::unique_ptr<DIR, decltype(close)> directory(fdopendir(fd.get()), close);
    if (directory == nullptr) {
        return false;
    }
    static_cast<void>(fd.release());  // closedir() closes it
    errno = 0;
    while (const dirent* entry = readdir(directory.get())) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
        errno = 0;
    }
    return errno == 0;
}

}  // namespace Vantel::Orbel
