#include "file/FileCacheImpl.h"

#include <json/value.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Vantel/Orbel/CTime.h"
#include "Vantel/Utils/Random.h"
#include "file/CacheImpl.h"
#include "frame/base/Guard.h"
#include "frame/base/Require.h"

namespace Vantel::Orbel {

namespace {

/// Such a directory, "/" first of all, is nobody's cache: emptying it would take the rest along.
bool holdsWorkingDirectory(const std::string& path) {
    std::error_code error;
    const auto directory = std::filesystem::weakly_canonical(path, error);
    const auto here = std::filesystem::current_path(error);
    const auto differs =
        std::mismatch(directory.begin(), directory.end(), here.begin(), here.end());
    // The root by itself: there is no working directory any more if somebody has removed it.
    return directory == directory.root_path() || differs.first == directory.end();
}

bool leadsOut(const std::string& name) {
    return ("/" + name + "/").find("/../") != std::string::npos;
}

bool renameFile(const std::string& from, const std::string& to) {
    const bool renamed = File::rename(from.c_str(), to.c_str());
    if (!renamed) {
        ORBEL_LOG_ERROR("rename file failed,src:%s,dst %s\n", from.c_str(), to.c_str());
    }
    return renamed;
}

std::string randomName() {
    return Utils::createRandomGUID(32);
}

}  // namespace

FileCacheImpl* FileCacheImpl::getInstance() {
    static auto* const cache = new FileCacheImpl;
    return cache;
}

IFileCache* IFileCache::instance() {
    return FileCacheImpl::getInstance();
}

void FileCacheImpl::initialize(const Json::Value& config) {
    const WriteGuard guard(mLock);
    if (mInitialized || !config.isObject() || !config["count"].isInt() ||
        !config["path"].isString()) {
        return;
    }
    const std::string path = config["path"].asString();
    if (path.empty() || holdsWorkingDirectory(path)) {
        ORBEL_LOG_ERROR("no directory for a file cache: %s\n", path.c_str());
        return;
    }
    mPath = path;
    mCount = config["count"].asInt();
    mExpireUnit = config["expireUnit"].isInt() ? config["expireUnit"].asInt() : 5000;
    mInitialized = true;
    if (File::exist(mPath.c_str())) {
        File::removeDirectoryForce(mPath.c_str());
    }
    // The second call: a directory right under the root counts as existing for the first one.
    if (!File::makeDirectoryWithParent(mPath.c_str()) ||
        (!File::exist(mPath.c_str()) && !File::makeDirectory(mPath.c_str()))) {
        ORBEL_LOG_ERROR("make directory of file cache %s failed\n", mPath.c_str());
    }
}

void FileCacheImpl::checkExpireCacheFile() {
    const WriteGuard guard(mLock);
    const uint64_t now = CTime::getCurrentMilliSecond();
    if (!mInitialized || now < mNextCheck) {
        return;
    }
    for (auto entry = mCaches.begin(); entry != mCaches.end();) {
        if (entry->second->expired(now)) {
            entry->second->remove();
            entry = mCaches.erase(entry);
        } else {
            ++entry;
        }
    }
    mNextCheck = now + static_cast<uint64_t>(int64_t{mExpireUnit});
}

std::string FileCacheImpl::getCachePath() {
    const ReadGuard guard(mLock);
    ORBEL_REQUIRE(mInitialized, "file cache not initial\n");
    return mPath;
}

IFileCache::CachePtr FileCacheImpl::createCache(int32_t expire) {
    return createCache(randomName(), expire);
}

IFileCache::CachePtr FileCacheImpl::createCache(const std::string& name, int32_t expire) {
    const WriteGuard guard(mLock);
    ORBEL_REQUIRE(mInitialized, "file cache not initial\n");
    if (full()) {
        return nullptr;
    }
    if (leadsOut(name)) {
        ORBEL_LOG_ERROR("name %s leads out of the file cache\n", name.c_str());
        return nullptr;
    }
    auto cache = std::make_shared<CacheImpl>(mNextId++, mPath + "/" + name, expire);
    if (!cache->open()) {
        return nullptr;
    }
    mCaches.emplace(cache->id(), cache);
    return cache;
}

/// One more than the limit fits, and is meant to.
bool FileCacheImpl::full() const {
    return static_cast<int64_t>(mCaches.size()) > mCount;
}

bool FileCacheImpl::getCache(long id, std::string& name) {
    const ReadGuard guard(mLock);
    const auto found = mCaches.find(id);
    if (found == mCaches.end()) {
        return false;
    }
    name = found->second->name();
    return true;
}

bool FileCacheImpl::removeCache(long id, bool removeFile) {
    const WriteGuard guard(mLock);
    const auto found = mCaches.find(id);
    if (found == mCaches.end()) {
        return false;
    }
    if (removeFile) {
        found->second->remove();
    }
    mCaches.erase(found);
    return true;
}

bool FileCacheImpl::removeCache(const CachePtr& cache, bool removeFile) {
    const auto* ours = dynamic_cast<const CacheImpl*>(cache.get());
    return ours != nullptr && removeCache(ours->id(), removeFile);
}

std::string FileCacheImpl::parserFileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);  // npos + 1 is 0
}

long FileCacheImpl::setFileCache(const std::string& path, int32_t expire) {
    const WriteGuard guard(mLock);
    if (!mInitialized || !File::exist(path.c_str()) || full()) {
        return -1;
    }
    const std::string inside = mPath + "/" + randomName();
    if (!renameFile(path, inside)) {
        return -1;
    }
    const long id = mNextId++;
    mCaches.emplace(id, std::make_shared<CacheImpl>(id, inside, expire));
    return id;
}

bool FileCacheImpl::moveCacheToPath(long id, const std::string& directory, std::string& result) {
    const WriteGuard guard(mLock);
    const auto found = mCaches.find(id);
    if (found == mCaches.end()) {
        return false;
    }
    CacheImpl& cache = *found->second;
    const std::string from = cache.name();
    const std::string to = directory + "/" + parserFileName(from);
    result = from;
    // Flushed before: a file that came up short must not be found at its place.
    if (!cache.flush() || !renameFile(from, to)) {
        return false;
    }
    result = to;
    cache.close();
    std::error_code error;
    const bool stays =
        std::filesystem::equivalent(std::filesystem::path(from).parent_path(), directory, error);
    if (!stays && File::exist(from.c_str())) {
        File::remove(from.c_str());
    }
    mCaches.erase(found);
    return true;
}

bool FileCacheImpl::moveFile2Path(const std::string& file, const std::string& directory,
                                  std::string& result, std::string& name) {
    name = parserFileName(file);
    const std::string to = directory + "/" + name;
    if (!File::rename(file.c_str(), to.c_str())) {
        ORBEL_LOG_ERROR("rename file failed,src:%s,dst %s, message %s \n", file.c_str(), to.c_str(),
                        strerror(errno));
        return false;
    }
    result = to;
    return true;
}

}  // namespace Vantel::Orbel
