#pragma once

#include <cstddef>
#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// One buffer of a vectored write, laid out as struct iovec.
struct IOVector {
    void* base;     ///< where it begins
    size_t length;  ///< bytes
};

static_assert(sizeof(IOVector) == 2 * sizeof(void*) && offsetof(IOVector, length) == sizeof(void*));

/// What stat() and a search know about a file. The default table follows symbolic links.
struct FileInfo {
    static constexpr uint16_t kReadOnly = 1;    ///< of `attr`: the owner may not write
    static constexpr uint16_t kHidden = 2;      ///< of `attr`: the default table never sets it
    static constexpr uint16_t kDirectory = 16;  ///< of `attr`

    char name[256];    ///< the whole path from stat(), the entry's bare name from findnext()
    uint16_t attr;     ///< the bits above
    uint16_t nlink;    ///< the number of links, its low 16 bits
    uint32_t uid;      ///< of the owner
    uint32_t gid;      ///< of the owner's group
    uint32_t mode;     ///< st_mode
    int64_t createAt;  ///< st_ctime, seconds since 1970, as the next two
    int64_t accessAt;  ///< st_atime
    int64_t writeAt;   ///< st_mtime
    int64_t size;      ///< bytes
};

static_assert(sizeof(FileInfo) == 304 && offsetof(FileInfo, attr) == 256);
static_assert(offsetof(FileInfo, createAt) == 272 && offsetof(FileInfo, size) == 296);

/// A table of file operations. Applications derive from it and mount it on a prefix of paths with
/// hookFileSystem(); everything else goes to the default table over the C library's streams.
///
/// Open files are what fopen() returns, and only their own table looks inside. Unless said
/// otherwise, operations behave as the functions of the C library that they are named after:
/// 0 or a count on success, negative on failure.
class ORBEL_API IFileSystem {
public:
    IFileSystem() = default;
    IFileSystem(const IFileSystem&) = delete;
    IFileSystem& operator=(const IFileSystem&) = delete;
    virtual ~IFileSystem() = default;

    /// `mode` as for fopen(3), with "e" at its end for close-on-exec. Null on failure.
    virtual void* fopen(const char* path, const char* mode) = 0;
    /// The default table brings the content to the disk before it closes.
    virtual int fclose(void* file) = 0;
    /// How many of `count` items of `size` bytes were read; 0 at the end, -1 if none was for an
    /// error. `size` and `count` are numbers of 32 bits without sign, which LfsFile uses to the
    /// full.
    virtual int fread(void* buffer, int size, int count, void* file) = 0;
    /// The same for writing.
    virtual int fwrite(const void* data, int size, int count, void* file) = 0;
    /// What the stream holds goes to the system, not to the disk.
    virtual int fflush(void* file) = 0;
    /// `whence` is SEEK_SET, SEEK_CUR or SEEK_END. The offset has 32 bits, also for LfsFile.
    virtual int fseek(void* file, int offset, int whence) = 0;
    /// The position, which may need 64 bits.
    virtual long ftell(void* file) = 0;
    /// `buffer`, or null at the end and on failure.
    virtual char* fgets(char* buffer, int size, void* file) = 0;
    /// Not negative on success.
    virtual int fputs(const char* text, void* file) = 0;

    ///@{
    /// With two paths it is the table of the first one that is asked, wherever the second leads.
    virtual int rename(const char* from, const char* to) = 0;
    virtual int remove(const char* path) = 0;
    ///@}

    /// Starts a search and fills `info` with its first entry. `info.name` holds the directory when
    /// this or findnext() is called. A handle for the other two, -1 on failure.
    virtual long findfirst(const char* pattern, FileInfo& info) = 0;
    /// -1 when there are no more entries.
    virtual int findnext(long handle, FileInfo& info) = 0;
    /// Ends a search; each findfirst() that gave a handle needs one.
    virtual int findclose(long handle) = 0;

    /// The default table grants all permissions but those of the umask.
    virtual int mkdir(const char* path) = 0;
    /// An empty directory only.
    virtual int rmdir(const char* path) = 0;
    /// In bytes: what an ordinary user may still write, the whole, and what is free.
    virtual int statfs(const char* path, unsigned long& avail, unsigned long& total,
                       unsigned long& free) = 0;
    /// `mode` as for access(2).
    virtual int access(const char* path, int mode) = 0;
    /// Fills `info` on success only.
    virtual int stat(const char* path, FileInfo& info) = 0;
    /// How many bytes were written, -1 on failure. The default table goes past its stream.
    virtual int writev(void* file, const IOVector* vectors, int count) = 0;
    /// True if the directory is there in the end.
    virtual bool makeDirectoryWithParent(const char* path) = 0;
};

/// Mounts `fs` on all paths that begin with the characters of `prefix` (at most 255 count); null
/// takes the mount with this prefix away. Of several mounts that fit a path, the one in the first
/// place of the table has it, not the longest; places that became free are filled first. There are
/// 31 places, and a call that finds none does nothing. The caller keeps `fs` alive as long as it
/// is mounted and files opened through it exist.
///
/// Threads: takes no lock, so belongs to the start of the process.
ORBEL_API void hookFileSystem(const char* prefix, IFileSystem* fs);

}  // namespace Vantel::Orbel
