#pragma once

#include <atomic>

#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/File.h"
#include "file/FileCacheImpl.h"

namespace Vantel::Orbel {

/// Fresh from birth. Threads: any; the cache removes a file under the hands of its writer.
class FileCacheImpl::CacheImpl : public IFileCache::ICache {
public:
    CacheImpl(long id, std::string path, int32_t expire);

    long id() const { return mId; }
    bool open();
    /// False if content is lost; true if it is closed.
    bool flush();
    /// Closes and takes it from the disk.
    void remove();
    bool expired(uint64_t nowMs) const;

    bool close() override;
    std::string name() override { return mName; }
    bool update(const uint8_t* data, uint32_t size) override;

private:
    const int32_t mExpire;  // ms; 0 and less: never
    const long mId;
    const std::string mName;
    File mFile;
    std::atomic<uint64_t> mLastUpdate;  // ms; read without the lock below
    CMutex mLock;                       // of mFile
};

}  // namespace Vantel::Orbel
