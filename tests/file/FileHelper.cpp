// What needs a process of its own. FileHelper full DIRECTORY: a disk that takes 20000 bytes a file.
// FileHelper readonly DIRECTORY: as a user who may not write there. Prints one line per result.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Vantel/Orbel/File.h"
#include "Vantel/Orbel/LfsFile.h"

using namespace Vantel::Orbel;

namespace {

void say(const char* what, long result) {
    std::printf("%s %ld\n", what, result);
}

void onFullDisk(const std::string& directory) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{20000, 20000};
    setrlimit(RLIMIT_FSIZE, &limit);
    const std::string data(30000, 'x');
    const std::string path = directory + "/full";
    say("save", File::save(path.c_str(), data.data(), data.size(), 0x1002));
    say("save what fits", File::save(path.c_str(), data.data(), 20000, 0x1002));
    say("append", File::save(path.c_str(), data.data(), 1, 0x3002));  // fits into the buffer only
    say("copy", File::copy("/proc/self/exe", path.c_str(), 0x1002));
    LfsFile file;
    file.open(path.c_str(), 0x1002);
    file.write(data.data(), 19999);
    file.flush();
    say("puts", file.puts("ab") >= 0);
    say("flush", file.flush());
    say("writev past the end", [&] {
        char bytes[2] = {};
        const IOVector vector{bytes, sizeof bytes};
        file.seek(0, LfsFile::kEnd);
        const int first = file.writev(&vector, 1);
        return first < 0 ? first : file.writev(&vector, 1);
    }());
}

void inReadOnlyDirectory(const std::string& directory) {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) {
        return;
    }
    const std::string inside = directory + "/inside";  // a directory with the file "file"
    const std::string file = inside + "/file";
    const std::string other = inside + "/other";
    File opened;
    say("open", opened.open(other.c_str(), 0x1002));
    say("save", File::save(other.c_str(), "x", 1, 0x1002));
    say("copy", File::copy(file.c_str(), other.c_str(), 0x1002));
    say("remove", File::remove(file.c_str()));
    say("rename", File::rename(file.c_str(), other.c_str()));
    say("makeDirectory", File::makeDirectoryWithParent((inside + "/a/b").c_str()));
    say("removeDirectoryForce", File::removeDirectoryForce(inside.c_str()));
    say("removeEmptyDirs", File::removeEmptyDirs(inside.c_str(), -10));
    say("symlink", File::symlink(file.c_str(), other.c_str()));
    say("copyDirectoryForce", File::copyDirectoryForce(inside.c_str(), other.c_str()));
    say("load", opened.load(file.c_str()) != nullptr);
}

}  // namespace

int main(int, char** argv) {
    if (std::strcmp(argv[1], "full") == 0) {
        onFullDisk(argv[2]);
    } else {
        inReadOnlyDirectory(argv[2]);
    }
}
