#include "file/FileDefaultOpt.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "file/ParentDirectories.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"
#include "frame/base/RetryOnEintr.h"

namespace Vantel::Orbel {

namespace {

static_assert(sizeof(IOVector) == sizeof(iovec) &&
              offsetof(IOVector, base) == offsetof(iovec, iov_base) &&
              offsetof(IOVector, length) == offsetof(iovec, iov_len));

FILE* stream(void* file) {
    return static_cast<FILE*>(file);
}

/// Whether the stream has met an error since the last question. A flag that stays would turn the
/// next end of file into an error.
bool metError(FILE* file) {
    if (ferror(file) == 0) {
        return false;
    }
    clearerr(file);
    return true;
}

/// Sizes and counts have 32 bits without sign behind the int of the interface.
size_t wide(int size) {
    return static_cast<unsigned>(size);
}

/// Nothing done and an error is -1; what was done before an error still counts.
int transferred(size_t done, bool failed) {
    return done == 0 && failed ? -1 : static_cast<int>(done);
}

}  // namespace

/// Never destroyed: files in other static objects are closed after main().
FileDefaultOpt* FileDefaultOpt::instance() {
    static auto* table = new FileDefaultOpt;
    return table;
}

void FileDefaultOpt::setFileBuffer(int size) {
    if (size >= 1024 && size <= 32768) {
        mBufferSize.store(size, std::memory_order_relaxed);
    }
}

bool FileDefaultOpt::isFile(unsigned short mode) {
    return S_ISREG(mode);
}

bool FileDefaultOpt::isDir(unsigned short mode) {
    return S_ISDIR(mode);
}

void* FileDefaultOpt::fopen(const char* path, const char* mode) {
    ORBEL_REQUIRE(mode != nullptr, "mode == osNullptr\n");
    ORBEL_REQUIRE(mode[0] != '\0', "len <=0\n");
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    FILE* file = ::fopen(path, mode);
    if (file == nullptr) {
        return nullptr;
    }
    // The GNU library takes the size for a hint only, since no buffer comes with it.
    setvbuf(file, nullptr, _IOFBF, static_cast<size_t>(fileBuffer()));
    if (mode[0] == 'a') {
        // Each write goes to the end in any case, but with "ab+" the GNU library reports 0.
        ::fseek(file, 0, SEEK_END);
    }
    return file;
}

int FileDefaultOpt::fclose(void* file) {
    FILE* closing = stream(file);
    int error = ::fflush(closing) == 0 ? 0 : errno;
    if (retryOnEintr([&] { return fsync(fileno(closing)); }) != 0 && error == 0 &&
        errno != EINVAL && errno != EROFS) {  // pipes and terminals have no disk to reach
        error = errno;
    }
    if (::fclose(closing) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        errno = error;
    }
    return error == 0 ? 0 : EOF;
}

int FileDefaultOpt::fread(void* buffer, int size, int count, void* file) {
    if (count == 0) {
        return 0;  // the buffer may be null then, which the C library does not allow
    }
    const size_t done = ::fread(buffer, wide(size), wide(count), stream(file));
    const bool failed = done < wide(count) && metError(stream(file));
    if (failed) {
        ORBEL_LOG_ERROR("fread failed error:%s\n", std::strerror(errno));
    }
    return transferred(done, failed);
}

int FileDefaultOpt::fwrite(const void* data, int size, int count, void* file) {
    if (count == 0) {
        return 0;  // the buffer may be null then, which the C library does not allow
    }
    const size_t done = ::fwrite(data, wide(size), wide(count), stream(file));
    const bool failed = done < wide(count) && metError(stream(file));
    if (failed) {
        ORBEL_LOG_ERROR("fwrite failed error:%s\n", std::strerror(errno));
    }
    return transferred(done, failed);
}

int FileDefaultOpt::fflush(void* file) {
    const int result = ::fflush(stream(file));
    metError(stream(file));
    return result;
}

int FileDefaultOpt::fseek(void* file, int offset, int whence) {
    return ::fseek(stream(file), offset, whence);
}

long FileDefaultOpt::ftell(void* file) {
    return ::ftell(stream(file));
}

char* FileDefaultOpt::fgets(char* buffer, int size, void* file) {
    char* line = ::fgets(buffer, size, stream(file));
    metError(stream(file));
    return line;
}

int FileDefaultOpt::fputs(const char* text, void* file) {
    const int result = ::fputs(text, stream(file));
    metError(stream(file));
    return result;
}

int FileDefaultOpt::rename(const char* from, const char* to) {
    return ::rename(from, to);
}

int FileDefaultOpt::remove(const char* path) {
    return ::remove(path);
}

int FileDefaultOpt::mkdir(const char* path) {
    return ::mkdir(path, 0777);
}

int FileDefaultOpt::rmdir(const char* path) {
    return ::rmdir(path);
}

int FileDefaultOpt::statfs(const char* path, unsigned long& avail, unsigned long& total,
                           unsigned long& free) {
    if (path == nullptr) {
        errno = EFAULT;
        return -1;
    }
    struct statfs info {};
    if (::statfs(path, &info) != 0) {
        return -1;
    }
    const auto blockSize = static_cast<unsigned long>(info.f_bsize);
    avail = info.f_bavail * blockSize;
    total = info.f_blocks * blockSize;
    free = info.f_bfree * blockSize;
    return 0;
}

int FileDefaultOpt::access(const char* path, int mode) {
    return ::access(path, mode);
}

int FileDefaultOpt::writev(void* file, const IOVector* vectors, int count) {
    const auto* system = reinterpret_cast<const iovec*>(vectors);
    const auto done = retryOnEintr([&] { return ::writev(fileno(stream(file)), system, count); });
    if (done < 0) {
        ORBEL_LOG_ERROR("writev failed error:%s\n", std::strerror(errno));
        return -1;
    }
    return static_cast<int>(done);
}

bool FileDefaultOpt::makeDirectoryWithParent(const char* path) {
    return makeWithParents(
        path, [this](const char* at) { return access(at, F_OK) == 0; },
        [this](const char* at) { return mkdir(at) == 0; });
}

}  // namespace Vantel::Orbel
