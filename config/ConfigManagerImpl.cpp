// The documents of the process and where their files are.
#include "config/ConfigManagerImpl.h"

#include <cstdlib>

#include "Vantel/Config/IConfig.h"
#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/File.h"
#include "config/ConfigInternal.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"

namespace Vantel::Config {

using Orbel::CTime;
using Orbel::File;
using Orbel::Guard;
using Orbel::ReadGuard;
using Orbel::WriteGuard;

namespace {

/// What the settings say, else the environment. False for a setting that is no string.
///
/// Throws std::logic_error if neither says anything, as it is meant to: a process that nobody told
/// where its files are must not go on with those of the root directory.
bool findDirectory(const Json::Value& settings, const char* key, const char* variable,
                   std::string& directory) {
    if (!settings.isMember(key)) {
        directory = std::string(std::getenv(variable));
        return true;
    }
    const bool valid = settings[key].isString();
    directory = valid ? settings[key].asString() : "";
    return valid;
}

}  // namespace

IConfigManager::~IConfigManager() = default;

IConfigManager* IConfigManager::instance() {
    return &ConfigManagerImpl::get();
}

void IConfigManager::processEvents() {
    ConfigManagerImpl::get().processEvents();
}

/// Never destroyed: documents that are static objects leave it after main().
ConfigManagerImpl& ConfigManagerImpl::get() {
    static auto* manager = new ConfigManagerImpl;
    return *manager;
}

bool ConfigManagerImpl::initial(const Json::Value& config) {
    static const Json::Value kNothing(Json::objectValue);
    const Json::Value& settings = config.isObject() ? config : kNothing;
    const int interval =
        settings["interval"].isInt() ? settings["interval"].asInt() : mIntervalMs.load();
    mIntervalMs = interval <= kTooShortMs ? kDefaultIntervalMs : interval;
    std::string defaultDirectory;
    std::string directory;
    if (!findDirectory(settings, "defConfigPath", "SDK_DEFAULT_CONFIG_PATH", defaultDirectory)) {
        ORBEL_LOG_ERROR("default config path type invalid\n");
        return false;
    }
    if (settings.isMember("defConfigPath") && !File::exist(defaultDirectory.c_str())) {
        ORBEL_LOG_ERROR("default config path(%s) not exist\n", defaultDirectory.c_str());
        return false;
    }
    if (!findDirectory(settings, "configPath", "SDK_CONFIG_PATH", directory)) {
        ORBEL_LOG_ERROR("config path type invalid\n");
        return false;
    }
    if (!File::exist(directory.c_str())) {
        File::makeDirectoryWithParent(directory.c_str());  // saving tells if that failed
    }
    const Guard starting(mStartMutex);
    mDefConfigPath = defaultDirectory;
    mConfigPath = directory;
    start(settings);
    return true;
}

void ConfigManagerImpl::start(const Json::Value& config) {
    if (mStarted) {
        return;
    }
    mStarted = true;
    {
        const Guard queueing(mQueueMutex);
        dropEvents();
    }
    const Json::Value& normalPower = config["normalPower"];
    if (normalPower.isBool() && !normalPower.asBool()) {
        mLowPower = true;  // nothing sets it back, also not a stop and a start without the key
    }
    mNextSyncMs = CTime::getCurrentMilliSecond() + static_cast<uint64_t>(mIntervalMs);
}

bool ConfigManagerImpl::deInitial() {
    const Guard starting(mStartMutex);
    if (!mStarted) {
        return false;
    }
    mStarted = false;
    {
        const Guard queueing(mQueueMutex);
        dropEvents();
    }
    syncAll();
    return true;
}

std::string ConfigManagerImpl::configPath() {
    const Guard reading(mStartMutex);
    return mConfigPath;
}

std::string ConfigManagerImpl::defConfigPath() {
    const Guard reading(mStartMutex);
    return mDefConfigPath;
}

bool ConfigManagerImpl::registerConfig(const std::string& name, IConfig* config) {
    const WriteGuard writing(mConfigsLock);
    return mConfigs.emplace(name, config).second;
}

void ConfigManagerImpl::unregisterConfig(const std::string& name, const IConfig* config) {
    const WriteGuard writing(mConfigsLock);
    const auto entry = mConfigs.find(name);
    if (entry != mConfigs.end() && entry->second == config) {
        mConfigs.erase(entry);
    }
}

IConfig* ConfigManagerImpl::find(const Json::Value& name) const {
    const auto entry = name.isString() ? mConfigs.find(name.asString()) : mConfigs.end();
    return entry == mConfigs.end() ? nullptr : entry->second;
}

IConfig* ConfigManagerImpl::getConfigObject(const char* name) {
    const ReadGuard reading(mConfigsLock);
    return name == nullptr ? nullptr : find(name);
}

bool ConfigManagerImpl::importConfig(const char* userId, const Json::Value& list) {
    if (!list.isArray()) {
        return true;
    }
    const ReadGuard reading(mConfigsLock);
    for (const Json::Value& element : list) {
        if (!element.isObject() || !element.isMember("key") || !element.isMember("value")) {
            continue;
        }
        IConfig* config = find(element["key"]);
        const std::string name = config == nullptr ? "" : config->getConfigName();
        if (config != nullptr && !config->importConfig(userId, name.c_str(), element["value"])) {
            ORBEL_LOG_ERROR("import config set %s config failed\n", name.c_str());
        }
    }
    return true;
}

bool ConfigManagerImpl::exportConfig(Json::Value& out, const Json::Value& names) {
    Json::Value collected;
    const bool valid = names.empty() || names.isArray();
    const auto collect = [&collected](const IConfig* config) {
        Json::Value element;
        element["value"] = config->getConfig(nullptr);
        if (!element["value"].empty()) {
            element["key"] = config->getConfigName();
            collected.append(element);
        }
    };
    const ReadGuard reading(mConfigsLock);
    if (names.empty()) {
        for (const auto& [name, config] : mConfigs) {
            collect(config);
        }
    } else if (valid) {
        for (const Json::Value& name : names) {
            if (const IConfig* config = find(name); config != nullptr) {
                collect(config);
            }
        }
    }
    out = collected;
    return valid;
}

bool ConfigManagerImpl::recoveryConfigs(const char* userId, const Json::Value& names) {
    if (!names.isArray() || names.empty()) {
        return false;
    }
    const ReadGuard reading(mConfigsLock);
    for (const Json::Value& name : names) {
        if (IConfig* config = find(name); config != nullptr) {
            config->recovery(userId, Json::Value());
        }
    }
    return true;
}

void ConfigManagerImpl::recoverAll(const char* userId, const Json::Value& except) {
    const ReadGuard reading(mConfigsLock);
    for (const auto& [name, config] : mConfigs) {
        const Json::Value& mark = except[name];
        if (mark.isBool() && mark.asBool()) {
            continue;
        }
        config->recovery(userId, mark.isObject() ? mark : Json::Value());
    }
}

/// That most documents have nothing to write is normal, and leaves no error number.
void ConfigManagerImpl::syncAll() {
    const ReadGuard reading(mConfigsLock);
    for (const auto& [name, config] : mConfigs) {
        config->mInternal->save(false);
    }
}

}  // namespace Vantel::Config
