#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/TestName.h"

namespace OrbelTest {

/// An empty directory of its own, removed with all it holds. The child that a death test starts
/// anew never comes to its end: it makes its own inside that of the test, which removes both.
class TempDirectory {
public:
    TempDirectory() {
        std::filesystem::create_directory(mPath);
        setenv(kOfTheTest, mPath.c_str(), 1);
    }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }

    const std::string& path() const { return mPath; }
    std::string operator/(const std::string& name) const { return mPath + "/" + name; }

    /// Writes a file, its directory with it, and returns its path.
    std::string write(const std::string& name, const std::string& content) const {
        const std::string path = *this / name;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

private:
    static constexpr const char* kOfTheTest = "ORBEL_TEST_DIRECTORY";

    static std::string parent() {
        const char* ofTheTest = std::getenv(kOfTheTest);
        return ofTheTest != nullptr && std::filesystem::is_directory(ofTheTest) ? ofTheTest
                                                                                : "/tmp";
    }

    std::string mPath = parent() + "/" + uniqueName("orbelFiles");
};

/// "<cannot open>" for a file that is not there.
inline std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return "<cannot open>";
    }
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace OrbelTest
