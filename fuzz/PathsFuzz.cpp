// Mounts and paths. The input is a row of texts with a zero byte between: "m..." mounts a prefix,
// "u..." takes it away, anything else is a path, routed by the library and by a plain model.
#include <optional>

#include "Vantel/Orbel/File.h"
#include "Vantel/Orbel/FileFind.h"
#include "Vantel/Orbel/LfsFile.h"
#include "file/FileDefaultOpt.h"
#include "file/MountTable.h"
#include "fuzz/Fuzz.h"
#include "tests/file/ScriptedFileSystem.h"

using namespace Vantel::Orbel;

namespace {

constexpr const char* kHome = "/home of all paths";

/// Holds the first mount and so every path below kHome, which is all that the real operations get.
class Home : public OrbelTest::ScriptedFileSystem {
public:
    Home() : ScriptedFileSystem(kHome) { mResult = -1; }
    int mkdir(const char* path) override { return below(path); }
    int access(const char* path, int) override { return below(path); }

    int below(const char* path) {
        Fuzz::require(std::string(path).rfind(kHome, 0) == 0, "a parent stays below the mount");
        return mResult;
    }
};

/// What the table does, with strings: 30 more places, each empty or with a prefix of 255 bytes.
class Model {
public:
    void mount(const std::string& prefix, IFileSystem* fs) {
        for (Place& place : mPlaces) {
            if (place.prefix.empty()) {
                place = {prefix.substr(0, 255), fs};
                return;
            }
        }
    }
    void unmount(const std::string& prefix) {
        for (Place& place : mPlaces) {
            if (!place.prefix.empty() && place.prefix == prefix) {
                place = {};
                return;
            }
        }
    }
    IFileSystem* find(const std::string& path) const {
        for (const Place& place : mPlaces) {
            if (!place.prefix.empty() && path.rfind(place.prefix, 0) == 0) {
                return place.fs;
            }
        }
        return FileDefaultOpt::instance();
    }
    void clear() {
        for (Place& place : mPlaces) {
            hookFileSystem(place.prefix.c_str(), nullptr);
            place = {};
        }
    }

private:
    struct Place {
        std::string prefix;
        IFileSystem* fs = nullptr;
    };
    Place mPlaces[30];
};

/// The operations that take paths apart themselves.
void walk(Home& home, const std::string& path) {
    for (const int result : {-1, 0}) {
        home.mResult = result;
        File::makeDirectoryWithParent(path.c_str());
        Fuzz::require(File::exist(path.c_str()) == (result == 0), "the mount answers");
        FileFind find;
        if (find.findFile(path.c_str())) {
            find.findNextFile();
            Fuzz::require(find.getFilePath().size() >= path.rfind('/') + 1, "it has its directory");
        }
        LfsFile file;
        file.open(path.c_str(), 0x1002);
        Fuzz::require(home.mOpened == path, "and it opens");
    }
    home.asked();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Home home;
    static OrbelTest::ScriptedFileSystem mounted("");
    Model model;
    for (const std::string& part : Fuzz::split(data, size, 50)) {
        const std::string text = part.c_str();  // the last one may go on behind a zero byte
        const std::string rest = text.substr(text.empty() ? 0 : 1);
        if (text[0] == 'm') {
            hookFileSystem(rest.c_str(), &mounted);
            model.mount(rest, &mounted);
        } else if (text[0] == 'u' && rest != kHome) {
            hookFileSystem(rest.c_str(), nullptr);
            model.unmount(rest);
        } else {
            const std::string below = kHome + text;
            Fuzz::require(_findOpts(below.c_str()) == &home, "the first mount has its paths");
            Fuzz::require(text.rfind(kHome, 0) == 0 || _findOpts(text.c_str()) == model.find(text),
                          "others go to the first place that fits");
            walk(home, below);
        }
    }
    model.clear();
    return 0;
}
