#include "Vantel/Config/IConfig.h"

#include <json/json.h>

#include "Vantel/Orbel/ErrorState.h"
#include "Vantel/Utils/JsonText.h"
#include "config/ConfigErrors.h"
#include "config/ConfigInternal.h"
#include "config/ConfigManagerImpl.h"
#include "frame/base/Guard.h"
#include "frame/base/Require.h"

namespace Vantel::Config {

using Orbel::getLastErrno;
using Orbel::ReadGuard;
using Orbel::setLastErrno;
using Saved = ConfigInternal::Saved;

namespace {

/// saveConfig() has set the number of a failure.
bool savedOrErrno(Saved saved) {
    if (saved == Saved::kNothingToSave) {
        setLastErrno(kConfigNothingToSave);
    }
    return saved == Saved::kYes;
}

bool isTrue(const Json::Value& value) {
    return value.isBool() && value.asBool();
}

/// Resets the members that both have and `except` does not mark. Members of `except` that are no
/// mark but a list of marks lead one level down, from the top level only.
void resetMembers(Json::Value& current, const Json::Value& defaults, const Json::Value& except,
                  bool topLevel) {
    if (!current.isObject() || !defaults.isObject()) {
        return;
    }
    for (const std::string& key : current.getMemberNames()) {
        const bool named = except.isObject() && except.isMember(key);
        if (!defaults.isMember(key) || (named && isTrue(except[key]))) {
            continue;
        }
        if (topLevel && named && (except[key].isObject() || except[key].isNull())) {
            resetMembers(current[key], defaults[key], except[key], false);
        } else {
            current[key] = defaults[key];
        }
    }
}

}  // namespace

IConfig::IConfig(const char* name) {
    ORBEL_REQUIRE(name != nullptr && name[0] != '\0', "config name null\n");
    mInternal = std::make_unique<ConfigInternal>(name);
}

IConfig::~IConfig() = default;

bool IConfig::initial() {
    return mInternal->initial(*this, nullptr, "");
}

bool IConfig::initial(const Json::Value& defaults, const std::string& path) {
    return !defaults.empty() && mInternal->initial(*this, &defaults, path);
}

bool IConfig::deInitial() {
    mInternal->save(false);
    ConfigManagerImpl::get().unregisterConfig(mInternal->mName, this);
    mInternal->clear();
    return true;
}

bool IConfig::verifyConfig(const Json::Value& /*value*/) {
    return true;
}

bool IConfig::repairConfig(const Json::Value& defaults, Json::Value& config) {
    if (!config.empty()) {
        return false;
    }
    config = defaults;
    return true;
}

bool IConfig::importConfig(const char* /*userId*/, const char* /*name*/,
                           const Json::Value& /*value*/) {
    return false;
}

const std::string& IConfig::getConfigName() const {
    return mInternal->mName;
}

Json::Value IConfig::getConfig(const char* name) const {
    const ConfigInternal& document = *mInternal;
    const ReadGuard reading(document.mLock);
    if (!document.usable()) {
        return Json::Value();
    }
    return document.isWhole(name) ? document.mConfig : Json::Path(name).resolve(document.mConfig);
}

const Json::Value& IConfig::getDefaultConfig(const char* name) const {
    const ConfigInternal& document = *mInternal;
    if (document.isWhole(name)) {
        return document.mDefaults;  // without the lock: repairConfig() may ask for it
    }
    const ReadGuard reading(document.mLock);
    return Json::Path(name).resolve(document.mDefaults);
}

bool IConfig::setConfig(const char* userId, const char* name, const Json::Value& value, int flags,
                        const Json::Value& attach) {
    ConfigInternal& document = *mInternal;
    if (userId == nullptr) {
        ORBEL_LOG_ERROR("userId is null,unable setConfig operate\n");
        setLastErrno(kUserIdNull);
        return false;
    }
    if (name != nullptr && name[0] == '\0') {
        ORBEL_LOG_ERROR("user(%s) config name invalid\n", userId);
        setLastErrno(kConfigNameEmpty);
        return false;
    }
    const char* shownName = name == nullptr ? document.mName.c_str() : name;
    if (document.holds(name, value)) {
        ORBEL_LOG_DEBUG("config is not diff, name:%s\n", shownName);
        return true;
    }
    if ((flags & kNoVerify) == 0 && !verifyConfig(value)) {
        ORBEL_LOG_ERROR("%s set config(%s) failed:%s\n", userId, shownName,
                        Utils::jsonToString(value, true).c_str());
        const int error = getLastErrno();  // which takes it away
        setLastErrno(error != 0 ? error : kConfigRefused);
        return false;
    }
    if (!document.store(name, value)) {
        setLastErrno(kConfigNotUsable);
        ORBEL_LOG_ERROR("user(%s) set config %s.%s failed\n", userId, document.mName.c_str(),
                        shownName);
        return false;
    }
    ConfigManagerImpl& manager = ConfigManagerImpl::get();
    const bool deferred = (flags & kDeferSave) != 0 || manager.lowPower();
    if (!deferred && !savedOrErrno(document.save(true))) {
        return false;
    }
    if ((flags & kNoNotify) == 0 && !manager.notify(userId, document.mName, attach)) {
        ORBEL_LOG_ERROR("%s modify config(%s) notify observer failed\n", userId, shownName);
    }
    return true;
}

bool IConfig::syncConfig() {
    return savedOrErrno(mInternal->save(false));
}

bool IConfig::recovery(const char* userId, const Json::Value& except) {
    if (!except.isNull() && !except.isObject()) {
        return false;
    }
    Json::Value current = getConfig(nullptr);
    resetMembers(current, getDefaultConfig(nullptr), except, true);
    return setConfig(userId, nullptr, current, kNoVerify | kNoNotify, Json::Value());
}

}  // namespace Vantel::Config
