#pragma once

#include <cstddef>
#include <cstdint>

#include "Vantel/Export.h"
#include "Vantel/Orbel/IFileSystem.h"

namespace Vantel::Orbel {

/// A buffered file with 32-bit position and length; LfsFile is its sibling for larger ones. The
/// path decides which table of operations does the work, see hookFileSystem().
///
/// Open flags, here and in LfsFile:
///     0, 1, 2   read; write; read and write
///     0x80      close on exec
///     0x1000    create (with 2; writing alone always creates)
///     0x2000    append to what is there instead of truncating it
/// so that 0 is fopen's "rb", 1 "wb", 0x2001 "ab", 2 "rb+", 0x1002 "wb+" and 0x3002 "ab+". File
/// takes the whole low byte for the access: with 0x80 in it every access becomes "rb".
///
/// The object keeps its own idea of position and length, which others who write the same file do
/// not change.
///
/// Threads: one object, one thread. The static operations from any thread.
class ORBEL_API File {
public:
    /// What an offset counts from.
    enum SeekPosition : int { kBegin = 0, kCurrent = 1, kEnd = 2 };

    File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    /// Closes, and frees what load() returned.
    virtual ~File();

    /// Closes what is open first. False if the file cannot be opened.
    virtual bool open(const char* path, uint32_t flags);

    /// Brings the content to the disk and closes; frees what load() returned. False if that failed
    /// and content is lost; true if nothing was open.
    virtual bool close();

    /// Opens `path` and reads it whole: getLength() bytes, owned by the object until unload(). The
    /// file stays open. Null if it cannot be opened, is empty (it stays open then, too), or cannot
    /// be read to its end. Content that is already loaded ends the program (fatal line, assertion).
    virtual uint8_t* load(const char* path);

    /// Closes and frees what load() returned.
    virtual void unload();

    /// Bytes read, 0 at the end, -1 if nothing is open or nothing could be read.
    virtual int read(void* buffer, size_t size);

    /// Bytes taken into the stream's buffer; -1 if nothing is open or nothing could be written. An
    /// error of the disk may show in flush() or close() only.
    virtual int write(const void* data, size_t size);

    /// Hands what was written to the system. False if nothing is open or that failed.
    virtual bool flush();

    /// The new position; 0 if nothing is open or on failure. Any other whence counts as kBegin,
    /// unless the position is 0.
    virtual uint32_t seek(int offset, SeekPosition whence);

    /// In bytes, as this object knows it; 0 if nothing is open.
    virtual uint32_t getPosition();

    /// In bytes; 0 if nothing is open.
    virtual uint32_t getLength();

    /// The next line with its newline, at most `size` - 1 bytes. Null at the end or if nothing is
    /// open.
    virtual char* gets(char* buffer, size_t size);

    /// Not negative on success, -1 on failure; 0 if nothing is open.
    virtual int puts(const char* text);

    /// Whether there is a file, after load() too.
    virtual bool isOpen();

    /// Writes past the stream's buffer: flush() first what was written otherwise. Bytes written,
    /// -1 on failure or if nothing is open.
    virtual int writev(const IOVector* vectors, int count);

    // What follows is false for a null or empty path, if it does not say otherwise, and on
    // failure; errno is set where a call to the system failed.

    ///@{
    /// As the system's calls of similar names, by way of the table of the (first) path: a
    /// directory must be empty to be removed, and have a parent to be made.
    static bool rename(const char* from, const char* to);
    static bool remove(const char* path);
    static bool makeDirectory(const char* path);
    static bool removeDirectory(const char* path);
    ///@}
    /// `mode` as for access(2).
    static bool access(const char* path, int mode);
    /// Fills `info` on success only.
    static bool stat(const char* path, FileInfo& info);
    /// access() with F_OK: false for a symbolic link that leads nowhere.
    static bool exist(const char* path);

    /// In bytes: what an ordinary user may still write, the whole, and what is free.
    static bool statFS(const char* path, uint64_t& avail, uint64_t& total, uint64_t& free);

    /// Follows symbolic links and no mounts.
    static bool isDirectory(const char* path);

    /// Of more than 0xFFFFFFFE bytes, so that it needs an LfsFile.
    static bool isLargerFile(const char* path);

    /// A directory with no entries.
    static bool isEmptyDir(const char* path);

    /// Of 0 bytes.
    static bool empty(const char* path);

    /// Makes what is missing of `path`. Its first component counts as existing, also in a relative
    /// path: "a" and "/a" are true and make nothing. Null and "" are true.
    static bool makeDirectoryWithParent(const char* path);

    /// Removes a file, or a directory with all that it holds. Symbolic links are removed, never
    /// followed. Stops at the first failure and at a path of 1024 bytes and more.
    static bool removeDirectoryForce(const char* path);

    /// Removes the empty directories below `path` that were last modified more than `seconds` ago,
    /// but not `path` itself. A directory that held only such directories was last modified before
    /// they went. False also if a part of the tree could not be examined or removed.
    static bool removeEmptyDirs(const char* path, int seconds);

    /// Copies the content. `flags` are those with which `to` is opened. A file is not copied to
    /// itself.
    static bool copy(const char* from, const char* to, uint32_t flags);

    /// Copies the content of a directory, symbolic links followed, into `to`, which is made if it
    /// is missing. Stops at the first failure, which are also: entries that are neither file nor
    /// directory, a directory that comes back to itself through a link or contains `to`, paths of
    /// 1024 bytes and more.
    static bool copyDirectoryForce(const char* from, const char* to);

    /// Writes `size` bytes of `data` to the file opened with `flags`. True if all are on the disk.
    static bool save(const char* path, const void* data, size_t size, uint32_t flags);

    /// Makes the link `to`, which leads to `from`.
    static bool symlink(const char* from, const char* to);

    /// Brings all file systems of the machine up to date on their disks.
    static void syncFile();

private:
    class ORBEL_LOCAL Internal;

    Internal* mInternal;
};

}  // namespace Vantel::Orbel
