#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A bounded number of temporary files in one directory. A writer gets a file, writes it, and moves
/// it to its place or removes it; a file that its writer leaves alone for too long is removed.
///
/// The cache is set up by the "fileCache" part of the configuration that the library is initialised
/// with: "count" (most files at a time), "path" (the directory; what it holds is deleted then) and
/// "expireUnit" (ms between two looks for files that are too old, 5000 if missing).
/// Before that getCachePath() and createCache() end the program (fatal line and assertion).
///
/// Threads: all methods from any thread.
class ORBEL_API IFileCache {
public:
    /// A file of the cache that is open for reading and writing. It outlives its entry in the
    /// cache, closed then. Threads: all methods from any thread.
    class ORBEL_API ICache {
    public:
        ICache() = default;
        ICache(const ICache&) = delete;
        ICache& operator=(const ICache&) = delete;

        /// Brings the content to the disk and closes the file, whose entry stays. False if content
        /// is lost; true if the file was closed already.
        virtual bool close() = 0;

        /// The whole path.
        virtual std::string name() = 0;

        /// Appends `size` bytes. True if all were taken, and then the file is fresh again; false,
        /// and no younger, if the file is closed or could not be written.
        virtual bool update(const uint8_t* data, uint32_t size) = 0;

        virtual ~ICache() = default;  // behind the others in the virtual table, unlike elsewhere
    };
    /// Shared by the cache and the application; the last one closes the file.
    using CachePtr = std::shared_ptr<ICache>;

    /// The cache of the process, which is never destroyed.
    static IFileCache* instance();

    IFileCache() = default;
    IFileCache(const IFileCache&) = delete;
    IFileCache& operator=(const IFileCache&) = delete;
    virtual ~IFileCache() = default;

    /// The directory.
    virtual std::string getCachePath() = 0;

    /// A new file with a random name. It is removed when nothing has been written to it for more
    /// than `expire` ms; 0 and less: never. Null if the cache holds more than "count" files
    /// already (so one more than "count" fit) or the file cannot be opened.
    virtual CachePtr createCache(int32_t expire) = 0;

    /// Puts the path of the file `id` into `name`. False if there is none.
    virtual bool getCache(long id, std::string& name) = 0;

    /// Lets go of the file `id`. With `removeFile` it is closed and removed from the disk, else it
    /// stays as it is, open or not. False if there is none.
    virtual bool removeCache(long id, bool removeFile) = 0;

    /// What stands behind the last "/" of `path`, or all of it.
    virtual std::string parserFileName(const std::string& path) = 0;

    /// The same as the other one. False for null, too.
    virtual bool removeCache(const CachePtr& cache, bool removeFile) = 0;

    /// As the other one, with a name of the caller's. What stands under this name in the directory
    /// is truncated. Null also for a name that leads out of the directory.
    virtual CachePtr createCache(const std::string& name, int32_t expire) = 0;

    /// Moves the file `path`, which must be on the same file system, into the cache under a new
    /// name. Its id, or -1 if the cache is not set up or holds more than "count" files, or the file
    /// is not there or cannot be moved. `expire` as for createCache(), counted from now.
    virtual long setFileCache(const std::string& path, int32_t expire) = 0;

    /// Moves the file `id` to `directory` on the same file system, under its own name, and lets go
    /// of it, closed. `result` becomes the new path. False if there is none or it cannot be moved;
    /// then it stays in the cache, and `result` is its path there.
    virtual bool moveCacheToPath(long id, const std::string& directory, std::string& result) = 0;

    /// Moves any file to `directory` on the same file system; the cache is not touched. `name`
    /// becomes the file's name, and `result` its new path unless the result is false.
    virtual bool moveFile2Path(const std::string& file, const std::string& directory,
                               std::string& result, std::string& name) = 0;
};

}  // namespace Vantel::Orbel
