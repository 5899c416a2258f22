#include "config/ConfigInternal.h"

#include "Vantel/Config/CConfigLoader.h"
#include "Vantel/Config/IConfig.h"
#include "config/ConfigManagerImpl.h"
#include "frame/base/Guard.h"
#include "frame/base/Require.h"

namespace Vantel::Config {

using Orbel::Guard;
using Orbel::ReadGuard;
using Orbel::WriteGuard;

namespace {

/// Null if there is no such document.
Json::Value loaded(const std::string& file) {
    Json::Value value;
    return CConfigLoader::instance()->loadConfig(file.c_str(), value) ? value : Json::Value();
}

}  // namespace

bool ConfigInternal::initial(IConfig& owner, const Json::Value* given, const std::string& path) {
    {
        const ReadGuard reading(mLock);
        if (mInited) {
            return true;
        }
    }
    ConfigManagerImpl& manager = ConfigManagerImpl::get();
    const std::string directory = path.empty() ? manager.configPath() : path;
    const std::string defaultDirectory = manager.defConfigPath();
    ORBEL_REQUIRE(manager.registerConfig(mName, &owner), "config name(%s) conflict\n",
                  mName.c_str());

    const WriteGuard writing(mLock);
    if (mInited) {
        return true;
    }
    mConfigFile = directory + "/" + mName;
    mDefaultFile = given == nullptr ? defaultDirectory + "/" + mName : "";
    mDefaults = given == nullptr ? loaded(mDefaultFile) : *given;
    mConfig = loaded(mConfigFile);
    ORBEL_REQUIRE(!mConfig.empty() || !mDefaults.empty(), "load config(%s) failed\n",
                  mName.c_str());
    mInited = true;
    mDirty = owner.repairConfig(mDefaults, mConfig);
    return true;
}

void ConfigInternal::clear() {
    const WriteGuard writing(mLock);
    mConfig = Json::Value();
    mDefaults = Json::Value();
    mInited = false;
}

Json::Value* ConfigInternal::place(const char* path) {
    if (isWhole(path)) {
        return &mConfig;
    }
    try {
        return &Json::Path(path).make(mConfig);
    } catch (const Json::Exception&) {
        return nullptr;  // something that has no members, or no elements, is in the way
    }
}

bool ConfigInternal::holds(const char* path, const Json::Value& value) {
    const WriteGuard writing(mLock);
    if (!usable()) {
        return false;  // and makes no path: an empty document stays one
    }
    const Json::Value* stored = place(path);
    return stored != nullptr && *stored == value;
}

bool ConfigInternal::store(const char* path, const Json::Value& value) {
    const WriteGuard writing(mLock);
    Json::Value* stored = usable() ? place(path) : nullptr;
    if (stored == nullptr) {
        return false;
    }
    mDirty = true;
    *stored = value;
    return true;
}

ConfigInternal::Saved ConfigInternal::save(bool changed) {
    const Guard saving(mSaveMutex);
    Json::Value copy;
    std::string file;
    {
        const WriteGuard writing(mLock);
        mDirty = mDirty || changed;
        if (!mDirty || !mInited) {
            return Saved::kNothingToSave;
        }
        mDirty = false;
        copy = mConfig;
        file = mConfigFile;
    }
    // Outside of mLock: readers don't wait for the disk.
    if (CConfigLoader::instance()->saveConfig(file.c_str(), copy)) {
        return Saved::kYes;
    }
    const WriteGuard writing(mLock);
    mDirty = true;  // the next sync tries again
    return Saved::kNo;
}

}  // namespace Vantel::Config
