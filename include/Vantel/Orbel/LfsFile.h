#pragma once

#include <cstddef>
#include <cstdint>

#include "Vantel/Export.h"
#include "Vantel/Orbel/IFileSystem.h"

namespace Vantel::Orbel {

/// The sibling of File for large files: position and length have 64 bits. The access is the low 4
/// bits of the flags, so that 0x80 goes with each; one above 2 ends the program (fatal line,
/// assertion), or fails if 0x80 stands beside it.
///
/// Threads: one object, one thread. The static operations from any thread.
class ORBEL_API LfsFile {
public:
    /// What an offset counts from.
    enum SeekPosition : int { kBegin = 0, kCurrent = 1, kEnd = 2 };

    LfsFile();
    LfsFile(const LfsFile&) = delete;
    LfsFile& operator=(const LfsFile&) = delete;
    /// Closes, and frees what load() returned.
    virtual ~LfsFile();

    ///@{
    /// As the one of File, but for the access in the flags.
    virtual bool open(const char* path, uint32_t flags);
    virtual bool close();
    virtual uint8_t* load(const char* path);
    virtual void unload();
    ///@}

    /// Bytes read, less than `size` at the end or on failure; -1 if nothing is open. Ask for less
    /// than 4 GiB: what does not come in one piece is written over the beginning of `buffer`.
    virtual long read(void* buffer, long size);

    /// Bytes taken, less than `size` on failure; -1 if nothing is open. The same limit.
    virtual long write(const void* data, long size);

    /// As File::flush().
    virtual bool flush();

    /// Only the low 32 bits of `offset` reach the file, as a number with sign: further than 2 GiB
    /// leads only kEnd with a small offset, or a row of steps with kCurrent.
    virtual uint64_t seek(long offset, SeekPosition whence);

    ///@{
    /// In bytes; 0 if nothing is open.
    virtual uint64_t getPosition();
    virtual uint64_t getLength();
    ///@}

    /// `size` up to 0x7FFFFFFF; null with an error line above.
    virtual char* gets(char* buffer, long size);

    ///@{
    /// As the one of File.
    virtual int puts(const char* text);
    virtual bool isOpen();
    virtual int writev(const IOVector* vectors, int count);

    static bool rename(const char* from, const char* to);
    static bool remove(const char* path);
    static bool makeDirectory(const char* path);
    static bool removeDirectory(const char* path);
    static bool statFS(const char* path, uint64_t& avail, uint64_t& total, uint64_t& free);
    static bool access(const char* path, int mode);
    static bool stat(const char* path, FileInfo& info);
    ///@}

private:
    class ORBEL_LOCAL Internal;

    Internal* mInternal;
};

}  // namespace Vantel::Orbel
