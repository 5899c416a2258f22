#pragma once

#include <atomic>
#include <cstdint>

#include "Vantel/Orbel/IFileSystem.h"

namespace Vantel::Orbel {

/// The default table: streams of the C library and POSIX. Files are FILE*, find handles DIR*.
///
/// Threads: all methods from any thread; one file or search, one thread.
class FileDefaultOpt final : public IFileSystem {
public:
    static FileDefaultOpt* instance();

    /// The stream buffer of files opened from now on, 1024 to 32768 bytes; other sizes change
    /// nothing.
    void setFileBuffer(int size);
    int32_t fileBuffer() const { return mBufferSize.load(std::memory_order_relaxed); }

    /// Of a mode as stat gives it.
    static bool isFile(unsigned short mode);
    static bool isDir(unsigned short mode);

    void* fopen(const char* path, const char* mode) override;
    int fclose(void* file) override;
    int fread(void* buffer, int size, int count, void* file) override;
    int fwrite(const void* data, int size, int count, void* file) override;
    int fflush(void* file) override;
    int fseek(void* file, int offset, int whence) override;
    long ftell(void* file) override;
    char* fgets(char* buffer, int size, void* file) override;
    int fputs(const char* text, void* file) override;
    int rename(const char* from, const char* to) override;
    int remove(const char* path) override;
    long findfirst(const char* pattern, FileInfo& info) override;
    int findnext(long handle, FileInfo& info) override;
    int findclose(long handle) override;
    int mkdir(const char* path) override;
    int rmdir(const char* path) override;
    int statfs(const char* path, unsigned long& avail, unsigned long& total,
               unsigned long& free) override;
    int access(const char* path, int mode) override;
    int stat(const char* path, FileInfo& info) override;
    int writev(void* file, const IOVector* vectors, int count) override;
    bool makeDirectoryWithParent(const char* path) override;

private:
    FileDefaultOpt() = default;

    std::atomic<int32_t> mBufferSize{16384};
};

}  // namespace Vantel::Orbel
