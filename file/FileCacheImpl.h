#pragma once

#include <map>

#include "Vantel/Orbel/CReadWriteMutex.h"
#include "Vantel/Orbel/IFileCache.h"

namespace Json {
class Value;
}

namespace Vantel::Orbel {

/// The one IFileCache. Locks: its own first, then the one of a file.
class FileCacheImpl : public IFileCache {
public:
    class CacheImpl;

    static FileCacheImpl* getInstance();

    FileCacheImpl() = default;

    /// Takes "count", "path" and "expireUnit" and empties the directory. Does nothing without the
    /// first two, and after the first time. Threads: any.
    void initialize(const Json::Value& config);

    /// Removes the files that are too old, at most once in "expireUnit" ms: call it about as often.
    /// Does nothing before initialize(). Threads: any.
    void checkExpireCacheFile();

    std::string getCachePath() override;
    CachePtr createCache(int32_t expire) override;
    bool getCache(long id, std::string& name) override;
    bool removeCache(long id, bool removeFile) override;
    std::string parserFileName(const std::string& path) override;
    bool removeCache(const CachePtr& cache, bool removeFile) override;
    CachePtr createCache(const std::string& name, int32_t expire) override;
    long setFileCache(const std::string& path, int32_t expire) override;
    bool moveCacheToPath(long id, const std::string& directory, std::string& result) override;
    bool moveFile2Path(const std::string& file, const std::string& directory, std::string& result,
                       std::string& name) override;

private:
    using CacheImplPtr = std::shared_ptr<CacheImpl>;

    bool full() const;

    bool mInitialized = false;
    int32_t mExpireUnit = 1000;  // ms
    int32_t mCount = 20;
    long mNextId = 0;
    uint64_t mNextCheck = 0;  // ms
    std::string mPath;
    std::map<long, CacheImplPtr> mCaches;
    CReadWriteMutex mLock;
};

}  // namespace Vantel::Orbel
