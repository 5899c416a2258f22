#pragma once

#include <memory>
#include <string>

#include "Vantel/Export.h"

namespace Json {
class Value;
}

namespace Vantel::Config {

class ConfigInternal;

/// A named JSON document of the process: the current values, which it may change, in a file called
/// as the document in the manager's configuration directory, and the factory defaults, which it
/// may not, in one of that name in the directory of defaults. Derive from it to check
/// (verifyConfig), mend (repairConfig) and import values.
///
/// A `name` argument of an operation is null or the document's own name, which both mean the whole
/// document, or a path in the syntax of Json::Path: "net.port", "joints[2].limit".
///
/// A `userId` names who makes a change; observers (IConfigManager::attach) get to see it.
///
/// Failures set the last error number of the thread (getLastErrno()):
///     0x10060001  the document could not be written to its file
///     0x10060002  a name or path is empty
///     0x10060003  verifyConfig() refused and set no number of its own
///     0x10060004  the document is empty or not initialised, or a value that is no object (no
///                 array, for an index) stands in the way of the path
///     0x10060005  nothing to write: the document is as its file, or not initialised
///     16          the user id is null
///
/// Threads: all operations from any thread, but initial() and deInitial(), which the owner calls.
/// Files are written without holding up readers. Copying a document takes about 120 bytes of
/// stack a level of nesting, and writing it about 300.
class ORBEL_API IConfig {
public:
    // Bits of the flags of setConfig().
    static constexpr int kDeferSave = 1;  ///< leave the writing of the file to the periodic sync
    static constexpr int kNoNotify = 2;   ///< do not tell the observers
    static constexpr int kNoVerify = 4;   ///< do not call verifyConfig()

    /// A document called `name`, which is a file name. A null or empty one ends the program (fatal
    /// line, assertion).
    explicit IConfig(const char* name);
    IConfig(const IConfig&) = delete;
    IConfig& operator=(const IConfig&) = delete;
    /// Does not leave the manager: call deInitial() first.
    virtual ~IConfig();

    /// Enters the document in the manager, whose paths must be set, and loads both layers. A file
    /// that is missing or damaged counts as empty; then repairConfig() may fill the gap, and what
    /// it changed is written by the next sync. Always true; again, it changes nothing. The program
    /// ends (fatal line, assertion) if the manager has a document of that name already, or if both
    /// layers are empty.
    virtual bool initial();

    /// Writes what is not written yet, leaves the manager and forgets both layers. Always true.
    virtual bool deInitial();

    /// Whether `value` may be stored by setConfig(), which passes what it was given, a whole
    /// document or the value for a path. An own error number is set with setLastErrno(). Called in
    /// the writer's thread and without a lock: of two writers at once, both may pass. The default
    /// is true.
    virtual bool verifyConfig(const Json::Value& value);

    /// As initial(), with the defaults given and the file of the current values in the directory
    /// `path`, or the manager's if that is empty. False for empty defaults.
    virtual bool initial(const Json::Value& defaults, const std::string& path);

    /// Resets values to their defaults, without verification and notification. Only top-level keys
    /// that both layers have are reset. `except` is Null, or an object of what to leave alone:
    /// {"net": true} all of "net", {"net": {"port": true}} only "port" in it. False for any other
    /// `except`, and as setConfig().
    virtual bool recovery(const char* userId, const Json::Value& except);

    /// Called by initial() with both layers as they were loaded, to make up for what is missing in
    /// `config`; true if it changed something. It runs under the document's lock and must not call
    /// getConfig() or setConfig(). The default copies `defaults` if `config` is empty.
    virtual bool repairConfig(const Json::Value& defaults, Json::Value& config);

    /// Called by the manager's importConfig() with the values that are meant for this document;
    /// `name` is its name. False if they were not taken, which is the default.
    virtual bool importConfig(const char* userId, const char* name, const Json::Value& value);

    /// As given to the constructor.
    const std::string& getConfigName() const;

    /// A copy of the value at `name`; Null if there is none or the document is not initialised.
    Json::Value getConfig(const char* name) const;

    /// The default at `name`, Null if there is none. Valid until deInitial().
    const Json::Value& getDefaultConfig(const char* name) const;

    /// Stores `value` at `name`, whose path is created as needed, writes the file unless that is
    /// deferred (by kDeferSave or the manager's low power mode), and tells the observers `attach`.
    /// An equal value is true and does nothing at all.
    ///
    /// False if it was refused, with one of the numbers above; a refused write may leave empty
    /// values on its path. False with 0x10060001 if the file could not be written: the value is
    /// stored, nobody is told, and the next sync tries again. Observers that could not be told are
    /// no failure.
    bool setConfig(const char* userId, const char* name, const Json::Value& value, int flags,
                   const Json::Value& attach);

    /// Writes the document to its file. False with 0x10060005 if there is nothing to write, with
    /// 0x10060001 if it failed; the next sync tries again then.
    bool syncConfig();

private:
    friend class ConfigManagerImpl;

    std::unique_ptr<ConfigInternal> mInternal;
};

static_assert(sizeof(IConfig) == 2 * sizeof(void*));

}  // namespace Vantel::Config
