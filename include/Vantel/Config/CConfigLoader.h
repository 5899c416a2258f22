#pragma once

#include <string>

#include "Vantel/Export.h"

namespace Json {
class Value;
}

namespace Vantel::Config {

/// Turns JSON files into documents and back: one document a file, UTF-8, written indented. The only
/// one who touches configuration files. It logs nothing: failures are false, and those of
/// saveConfig() set the last error number of the thread as well.
///
/// A file that holds no such document (damaged, not UTF-8, neither object nor array, nested more
/// than 1000 levels deep or deeper than the calling thread's stack allows, over 2 GiB) is refused
/// as a whole.
///
/// Threads: any thread, but setEncrypt(), which belongs to the start of the process. There is no
/// lock: who saves one path from two threads at once mixes their texts.
class ORBEL_API CConfigLoader {
public:
    /// Never destroyed.
    static CConfigLoader* instance();

    CConfigLoader(const CConfigLoader&) = delete;
    CConfigLoader& operator=(const CConfigLoader&) = delete;
    virtual ~CConfigLoader();

    /// Switches to the secret path for good, which holds no cipher: from then on nothing can be
    /// loaded or saved. False, and no switch, for a null or empty key.
    bool setEncrypt(const char* key);

    /// Reads the document at `path`. False with `out` untouched if there is no such file; false
    /// with a null `out` if it cannot be read or is refused.
    bool loadConfig(const char* path, Json::Value& out);

    /// Writes `value` straight to `path`, over what is there, and brings it to the disk. A failure
    /// or crash on the way leaves a file that is cut short. False with 0x10060002 for a null or
    /// empty path, with 0x10060001 if it could not be written.
    bool saveConfig(const char* path, const Json::Value& value);

    ///@{
    /// The steps of loadConfig() and saveConfig(), without a look at the switch and without error
    /// numbers.
    bool readConfig(const char* path, Json::Value& out);
    bool writeConfig(const char* path, const Json::Value& value);
    ///@}

    ///@{
    /// Always false.
    bool readSecretConfig(const char* path, Json::Value& out);
    bool writeSecretConfig(const char* path, const Json::Value& value);
    ///@}

    /// Reads a file of any content, which must not be empty. False, with `out` untouched, if it
    /// cannot be opened, is empty or has more than 2 GiB; false with an empty `out` if it could not
    /// be read to its end.
    bool readFile(const char* path, std::string& out);

    /// Brings an existing file to the disk.
    void flushConfigFile(const char* path);

private:
    CConfigLoader() = default;

    bool mEncrypt = false;
    std::string mKey;  // kept and never read
};

}  // namespace Vantel::Config
