#include "Vantel/INI/INIParser.h"

#include <iniparser/iniparser.h>
#include <sys/stat.h>

#include <memory>

#include "Vantel/Orbel/CMutex.h"
#include "config/INIParserImpl.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"
#include "frame/base/Require.h"

namespace Vantel::INI {

namespace {

struct FreeDictionary {
    void operator()(dictionary* entries) const { iniparser_freedict(entries); }
};
using Dictionary = std::unique_ptr<dictionary, FreeDictionary>;

Orbel::CMutex& parserLock() {
    static auto& lock = *new Orbel::CMutex;  // never destroyed: files are read while a program ends
    return lock;
}

/// A directory opens like a file that is empty.
bool isDirectory(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

/// Null if the file does not have the key.
const char* find(const Dictionary& entries, const std::string& key) {
    constexpr size_t kLongestKey = 1024;  // the library cuts a longer one, and may find another
    return key.size() > kLongestKey ? nullptr
                                    : iniparser_getstring(entries.get(), key.c_str(), nullptr);
}

}  // namespace

std::shared_ptr<INIParser> INIParser::create(const char* file, const char* section) {
    ORBEL_REQUIRE(file != nullptr, "ini file is null\n");
    ORBEL_REQUIRE(section != nullptr, "ini file section is null\n");
    return std::make_shared<INIParserImpl>(file, section);
}

bool INIParser::readINIFile(const char* file, const std::vector<std::string>& keys,
                            std::map<std::string, std::string>& values, const char* section) {
    if (file == nullptr || *file == '\0' || keys.empty()) {
        return false;
    }
    const Orbel::Guard guard(parserLock());
    const Dictionary entries(isDirectory(file) ? nullptr : iniparser_load(file));
    if (entries == nullptr) {
        ORBEL_LOG_ERROR("readr ini file(%s) failed\n", file);
        return false;
    }
    const std::string prefix =
        section == nullptr || *section == '\0' ? "" : std::string(section) + ":";
    for (const std::string& key : keys) {
        if (key.empty()) {
            return false;
        }
        const char* value = find(entries, prefix + key);
        if (value == nullptr && prefix.empty()) {
            value = find(entries, ":" + key);  // where the library keeps what is in no section
        }
        if (value != nullptr) {
            values[key] = value;
        }
    }
    return true;
}

bool INIParser::writeINIFile(const char* /*file*/,
                             const std::map<std::string, std::string>& /*values*/,
                             const char* /*section*/) {
    return false;
}

}  // namespace Vantel::INI
