// INI files of strangers: the input is a key, a section and the file, with a zero byte between.
#include <iniparser/iniparser.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "Vantel/INI/INIParser.h"
#include "fuzz/Fuzz.h"

namespace {

int silent(const char*, ...) {
    return 0;
}

/// A file in memory that every input is written to.
const std::string& pathOf(const std::string& content) {
    static const int file = memfd_create("fuzz", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    Fuzz::require(ftruncate(file, 0) == 0 && pwrite(file, content.data(), content.size(), 0) ==
                                                 static_cast<ssize_t>(content.size()),
                  "the file can be written");
    return path;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    iniparser_set_error_callback(&silent);
    auto parts = Fuzz::split(data, size, 3);
    parts.resize(3);
    const std::string& key = parts[0];
    const std::string& section = parts[1];
    const char* path = pathOf(parts[2]).c_str();
    std::map<std::string, std::string> values{{"\x01of before", "stays"}};
    const bool read =
        Vantel::INI::INIParser::readINIFile(path, {key, "key"}, values, section.c_str());
    Fuzz::require(values.erase("\x01of before") == 1, "other entries stay");
    Fuzz::require(!read || !key.empty(), "an empty key is refused");
    for (const auto& [name, value] : values) {
        Fuzz::require(name == key || (read && name == "key"), "only what was asked for comes");
        Fuzz::require(value.size() <= parts[2].size(), "a value is a part of the file");
    }
    if (read && values.count(key) != 0) {
        // The same key under its full name.
        std::map<std::string, std::string> full;
        const std::string name = section.empty() ? key : section + ":" + key;
        Fuzz::require(Vantel::INI::INIParser::readINIFile(path, {name}, full, nullptr) &&
                          full[name] == values[key],
                      "a key has one value");
    }
    return 0;
}
