#include "file/CacheImpl.h"

#include <utility>

#include "Vantel/Orbel/CTime.h"
#include "frame/base/Guard.h"

namespace Vantel::Orbel {

FileCacheImpl::CacheImpl::CacheImpl(long id, std::string path, int32_t expire)
    : mExpire(expire),
      mId(id),
      mName(std::move(path)),
      mLastUpdate(CTime::getCurrentMilliSecond()) {}

bool FileCacheImpl::CacheImpl::open() {
    constexpr uint32_t kReadWriteCreate = 0x1002;
    const Guard guard(mLock);
    return mFile.open(mName.c_str(), kReadWriteCreate);
}

bool FileCacheImpl::CacheImpl::flush() {
    const Guard guard(mLock);
    return !mFile.isOpen() || mFile.flush();
}

void FileCacheImpl::CacheImpl::remove() {
    close();
    File::remove(mName.c_str());
}

bool FileCacheImpl::CacheImpl::expired(uint64_t nowMs) const {
    return mExpire > 0 &&
           static_cast<uint64_t>(mExpire) + mLastUpdate.load(std::memory_order_relaxed) < nowMs;
}

bool FileCacheImpl::CacheImpl::close() {
    const Guard guard(mLock);
    const bool flushed = !mFile.isOpen() || mFile.flush();
    return mFile.close() && flushed;
}

bool FileCacheImpl::CacheImpl::update(const uint8_t* data, uint32_t size) {
    const Guard guard(mLock);
    if (mFile.write(data, size) != static_cast<int64_t>(size)) {
        return false;
    }
    mLastUpdate.store(CTime::getCurrentMilliSecond(), std::memory_order_relaxed);
    return true;
}

}  // namespace Vantel::Orbel
