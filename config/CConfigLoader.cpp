#include "Vantel/Config/CConfigLoader.h"

#include <json/json.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <memory>

#include "Vantel/Orbel/ErrorState.h"
#include "Vantel/Orbel/File.h"
#include "Vantel/Utils/JsonText.h"
#include "config/ConfigErrors.h"
#include "utils/Utf8.h"

namespace Vantel::Config {

using Orbel::File;
using Orbel::setLastErrno;

namespace {

constexpr uint32_t kRead = 0;
constexpr uint32_t kReadAndWrite = 2;
constexpr uint32_t kWriteAnew = 0x1002;

struct Free {
    void operator()(char* memory) const { std::free(memory); }
};

/// A file's length has 32 bits, so that one of 4 GiB and more shows a part of itself only.
bool openToRead(File& file, const char* path) {
    return file.open(path, kRead) && file.getLength() <= INT_MAX && !File::isLargerFile(path);
}

}  // namespace

/// Never destroyed: documents that are static objects save themselves after main().
CConfigLoader* CConfigLoader::instance() {
    static auto* loader = new CConfigLoader;
    return loader;
}

CConfigLoader::~CConfigLoader() = default;

bool CConfigLoader::setEncrypt(const char* key) {
    if (key == nullptr || key[0] == '\0') {
        return false;
    }
    mEncrypt = true;
    mKey = key;
    return true;
}

bool CConfigLoader::loadConfig(const char* path, Json::Value& out) {
    if (!File::access(path, F_OK)) {
        return false;
    }
    return mEncrypt ? readSecretConfig(path, out) : readConfig(path, out);
}

bool CConfigLoader::saveConfig(const char* path, const Json::Value& value) {
    if (path == nullptr || path[0] == '\0') {
        setLastErrno(kConfigNameEmpty);
        return false;
    }
    const bool saved = mEncrypt ? writeSecretConfig(path, value) : writeConfig(path, value);
    if (!saved) {
        setLastErrno(kConfigNotWritten);
    }
    return saved;
}

bool CConfigLoader::readConfig(const char* path, Json::Value& out) {
    out = Json::Value();
    File file;
    if (!openToRead(file, path)) {
        return false;
    }
    const size_t length = file.getLength();
    const std::unique_ptr<char, Free> text(static_cast<char*>(std::malloc(length)));
    if (text == nullptr) {
        return false;
    }
    const int count = file.read(text.get(), length);
    // The parser takes any byte in a string, but what is not UTF-8 it cannot write back.
    return count >= 0 && Utils::isUtf8({text.get(), static_cast<size_t>(count)}) &&
           Utils::stringToJson(text.get(), count, out);
}

/// No temporary file, no rename, no backup, as it is meant to be: a document that is cut short is
/// refused at the next start, and the defaults take its place.
bool CConfigLoader::writeConfig(const char* path, const Json::Value& value) {
    const std::string text = Utils::jsonToString(value, true);
    File file;
    if (text.empty() || !file.open(path, kWriteAnew)) {
        return false;
    }
    const int count = file.write(text.data(), text.size());
    if (count < 0 || static_cast<size_t>(count) < text.size() || !file.flush()) {
        return false;
    }
    return file.close();  // which is what brings it from the system to the disk
}

bool CConfigLoader::readSecretConfig(const char* /*path*/, Json::Value& /*out*/) {
    return false;  // there is no cipher, on purpose
}

bool CConfigLoader::writeSecretConfig(const char* /*path*/, const Json::Value& /*value*/) {
    return false;
}

bool CConfigLoader::readFile(const char* path, std::string& out) {
    File file;
    if (!openToRead(file, path) || file.getLength() == 0) {
        return false;
    }
    out.resize(file.getLength());
    const int count = file.read(out.data(), out.size());
    if (count < 0 || static_cast<size_t>(count) < out.size()) {
        out.clear();
        return false;
    }
    return true;
}

void CConfigLoader::flushConfigFile(const char* path) {
    File file;
    if (file.open(path, kReadAndWrite)) {
        file.flush();
    }
}

}  // namespace Vantel::Config
