#pragma once

#include "Vantel/Export.h"
#include "Vantel/Orbel/TDelegate.h"

namespace Json {
class Value;
}

namespace Vantel::Config {

class IConfig;

/// The configuration documents of the process: where their files are, the periodic writing of what
/// has changed, the observers of changes, and the reset to defaults. It has no thread of its own:
/// one thread of the process calls processEvents() again and again, which
/// IClientManager::checkProcessStatus() does.
///
/// Threads: all operations from any thread, but processEvents(), which belongs to one. Operations
/// that call into documents (importConfig, exportConfig, recoveryConfigs, processEvents) keep the
/// list of documents locked meanwhile: such a call must not initialise or de-initialise one.
class ORBEL_API IConfigManager {
public:
    /// Gets the user who made the change (may be null), the document's name, and what the writer
    /// attached for observers (Null if nothing).
    using Observer = Orbel::TDelegate<void, const char*, const char*, const Json::Value&>;

    /// Never destroyed.
    static IConfigManager* instance();

    IConfigManager(const IConfigManager&) = delete;
    IConfigManager& operator=(const IConfigManager&) = delete;

    /// Stops, drops what waits for observers and writes all documents that have changed. False if
    /// it was not started.
    virtual bool deInitial() = 0;

    /// The document of that name, null if there is none. It belongs to who made it.
    virtual IConfig* getConfigObject(const char* name) = 0;

    /// Adds an observer of the document `name`. Observers run in the thread of processEvents(), one
    /// after the other, and may read and write documents and detach, but not attach. False if there
    /// is no such document, `proc` is empty, or an equal one is attached.
    virtual bool attach(const char* name, const Observer& proc) = 0;

    /// Takes an observer away; after that it neither runs nor will be called again (in itself: not
    /// called again). False if it was not attached.
    virtual bool detach(const char* name, const Observer& proc) = 0;

    /// Sets the paths and starts. A second call changes interval and paths only. Keys of `config`:
    ///     "interval"       milliseconds between the periodic syncs; 199 and less become 2000,
    ///                      which is what it starts with
    ///     "defConfigPath"  directory of the defaults, which must exist; by default the environment
    ///                      variable SDK_DEFAULT_CONFIG_PATH
    ///     "configPath"     directory of the current values, made if it is missing; by default the
    ///                      environment variable SDK_CONFIG_PATH
    ///     "normalPower"    false: low power mode, all writing of files waits for the periodic
    ///                      sync. There is no way back from it.
    /// False, with a line in the log, for a path that is no string, and for a "defConfigPath" that
    /// does not exist. Throws std::logic_error if a path is given neither here nor by its variable.
    virtual bool initial(const Json::Value& config) = 0;

    /// Hands values to documents: `list` is an array of {"key": name of the document, "value": what
    /// its IConfig::importConfig() gets}. Unknown names are skipped, refusals logged. Always true.
    virtual bool importConfig(const char* userId, const Json::Value& list) = 0;

    /// Collects documents into `out`, as importConfig() takes them. `names` is an array of names,
    /// or empty for all documents. Empty documents are left out; with nothing to tell, `out` is
    /// Null. False, with a null `out`, for other `names`.
    virtual bool exportConfig(Json::Value& out, const Json::Value& names) = 0;

    /// Resets the named documents to their defaults, here and now. False unless `names` is an array
    /// that is not empty.
    virtual bool recoveryConfigs(const char* userId, const Json::Value& names) = 0;

    /// Has all documents reset to their defaults by processEvents(), and drops the notifications
    /// that wait. `except` is Null, or an object of what to leave alone, by name of the document:
    /// true all of it, an object what IConfig::recovery() takes. False, with a line in the log, for
    /// any other `except`.
    virtual bool recovery(const char* userId, const Json::Value& except) = 0;

    /// One turn of the worker: the periodic sync if it is due, then what waits for observers, in
    /// the order of the changes, until nothing is left. Returns at once if not started, and sleeps
    /// for at most 50 ms if there is nothing to do. At most 64 notifications wait; more are lost.
    void processEvents();

    // Behind all others: the order of the virtual operations is part of the interface.
    virtual ~IConfigManager();

protected:
    IConfigManager() = default;
};

}  // namespace Vantel::Config
