#include "Vantel/Orbel/FileFind.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <tuple>

#include "Vantel/Orbel/IFileSystem.h"
#include "tests/file/ScriptedFileSystem.h"
#include "tests/file/TempDirectory.h"
#include "tests/support/OpenDescriptors.h"

using namespace Vantel::Orbel;

namespace {

TEST(FileFindTest, GivesEveryEntryOfTheDirectoryWithItsAttributes) {
    using Entry = std::tuple<bool, bool, int64_t>;  // is a directory, is read-only, length
    const OrbelTest::TempDirectory directory;
    directory.write("d/file", "elsewhere");
    directory.write("file", "12345");
    ASSERT_EQ(chmod(directory.write("read", "1").c_str(), 0444), 0);
    directory.write(std::string(227, 'k'), "kept");
    directory.write(std::string(229, 'l'), "passed over");
    ASSERT_EQ(symlink("nowhere", (directory / "dangling").c_str()), 0);
    const std::map<std::string, Entry> expected = {
        {".", {true, false, 0}},        {"..", {true, false, 0}},
        {"d", {true, false, 0}},        {"file", {false, false, 5}},
        {"read", {false, true, 1}},     {std::string(227, 'k'), {false, false, 4}},
        {"dangling", {false, true, 0}},  // nothing is known of it, not even its owner's rights
    };
    std::map<std::string, Entry> found;
    FileFind find;
    for (bool more = find.findFile((directory / "*").c_str()); more; more = find.findNextFile()) {
        const std::string name = find.getFileName();
        EXPECT_EQ(find.getFilePath(), directory / name);
        EXPECT_FALSE(find.isHidden());
        EXPECT_EQ(find.isNormal(), !find.isDirectory() && !find.isReadOnly());
        const int64_t length = find.isDirectory() ? 0 : find.getLength();
        EXPECT_TRUE(
            found.emplace(name, Entry{find.isDirectory(), find.isReadOnly(), length}).second);
    }
    EXPECT_EQ(found, expected);
}

TEST(FileFindTest, NothingIsMatchedAndEverySearchIsClosedOnce) {
    const OrbelTest::TempDirectory directory;
    directory.write("abc/file", "");
    const struct {
        std::string pattern;
        bool found;
    } cases[] = {
        {directory / "abc*", true},
        {directory / "ab*", false},
        {directory / "*c*", false},
        {directory / "abc", true},
        {directory / "abc/file", false},
        {directory.path() + "/" + std::string(300, 'x'), false},
        {"*", false},
        {directory / "abc/*", true},
        {"", false},
    };
    const long before = OrbelTest::openDescriptors();
    {
        FileFind find;
        EXPECT_FALSE(find.findFile(nullptr) || find.findNextFile());
        for (const auto& c : cases) {
            EXPECT_EQ(find.findFile(c.pattern.c_str()), c.found) << c.pattern;
            EXPECT_LE(OrbelTest::openDescriptors(), before + 1);
        }
        EXPECT_TRUE(find.findNextFile()) << "an empty pattern is refused before it closes anything";
        find.close();
        find.close();
        EXPECT_FALSE(find.findNextFile());
        ASSERT_TRUE(find.findFile("/tmp/*"));
    }
    EXPECT_EQ(OrbelTest::openDescriptors(), before);
}

TEST(FileFindTest, MountIsGivenTheDirectoryInTheName) {
    using Asked = std::vector<std::string>;
    OrbelTest::ScriptedFileSystem table("/scripted/");
    FileFind find;
    ASSERT_TRUE(find.findFile("/scripted/sub/*"));
    ASSERT_TRUE(find.findNextFile());
    table.mResult = -1;
    EXPECT_FALSE(find.findNextFile());
    EXPECT_FALSE(find.findFile("/scripted/gone/*"));
    EXPECT_EQ(table.asked(),
              (Asked{"findfirst /scripted/sub/", "findnext /scripted/sub/",
                     "findnext /scripted/sub/", "findclose", "findfirst /scripted/gone/"}));
}

}  // namespace
