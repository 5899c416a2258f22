#pragma once

#include <json/json.h>

#include <string>

#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CReadWriteMutex.h"

namespace Vantel::Config {

class IConfig;

/// The state of a document. mSaveMutex comes before mLock; none of the manager's locks is taken
/// under either.
class ConfigInternal {
public:
    enum class Saved { kYes, kNo, kNothingToSave };

    explicit ConfigInternal(const char* name) : mName(name) {}

    /// The document itself is addressed by null and by its own name.
    bool isWhole(const char* path) const { return path == nullptr || mName == path; }

    /// Enters `owner` in the manager and loads both layers, or only the current one if the defaults
    /// are `given`. An empty `path` is the manager's.
    bool initial(IConfig& owner, const Json::Value* given, const std::string& path);

    /// Forgets both layers.
    void clear();

    /// Whether `value` stands at `path` already, which is made if it is missing.
    bool holds(const char* path, const Json::Value& value);

    /// False if the document is empty or not initialised, or has no way to `path`.
    bool store(const char* path, const Json::Value& value);

    /// Writes the document if it is newer than its file, which with `changed` it counts as.
    Saved save(bool changed);

    /// Whether there is something to read or to change. Under mLock.
    bool usable() const { return mInited && !mConfig.empty(); }

    bool mInited = false;
    bool mDirty = false;  // the document is newer than its file
    const std::string mName;
    std::string mConfigFile;
    std::string mDefaultFile;
    Json::Value mConfig;
    Json::Value mDefaults;
    mutable Orbel::CReadWriteMutex mLock;  // guards all of the above

private:
    Json::Value* place(const char* path);

    // One save at a time: a direct one and the periodic one would mix their texts in the file, or
    // leave the older of the two there.
    Orbel::CMutex mSaveMutex;
};

}  // namespace Vantel::Config
