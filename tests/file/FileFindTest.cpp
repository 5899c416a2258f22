#include "Vantel/Orbel/FileFind.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "Vantel/Orbel/IFileSystem.h"
#include "tests/file/ScriptedFileSystem.h"
#include "tests/file/TempDirectory.h"
#include "tests/support/OpenDescriptors.h"

using namespace Vantel::Orbel;

namespace {

TEST(FileFindTest, GivesEveryEntryOfTheDirectoryWithItsAttributes) {
    OrbelTest::TempDirectory directory;
    std::filesystem::create_directory(directory / "d");
    directory.write("file", "12345");
    directory.write("d/file", "elsewhere");
    ASSERT_EQ(chmod(directory.write("read", "1").c_str(), 0444), 0);
    directory.write(std::string(227, 'k'), "kept");
    directory.write(std::string(229, 'l'), "passed over");
    ASSERT_EQ(symlink("nowhere", (directory / "dangling").c_str()), 0);
    const struct {
        std::string name;
        bool isDirectory;
        bool isReadOnly;
        int64_t length;
    } cases[] = {
        {".", true, false, -1},       {"..", true, false, -1},
        {"d", true, false, -1},       {"file", false, false, 5},
        {"read", false, true, 1},     {std::string(227, 'k'), false, false, 4},
        {"dangling", false, true, 0},  // nothing is known of it, not even that its owner may write
    };
    FileFind find;
    std::map<std::string, int> seen;
    ASSERT_TRUE(find.findFile((directory / "*").c_str()));
    do {
        const std::string name = find.getFileName();
        SCOPED_TRACE(name);
        ++seen[name];
        const auto* c = std::find_if(std::begin(cases), std::end(cases),
                                     [&](const auto& known) { return known.name == name; });
        ASSERT_NE(c, std::end(cases));
        EXPECT_EQ(find.getFilePath(), directory / name);
        EXPECT_EQ(find.isDirectory(), c->isDirectory);
        EXPECT_EQ(find.isReadOnly(), c->isReadOnly);
        EXPECT_EQ(find.isNormal(), !c->isDirectory && !c->isReadOnly);
        EXPECT_FALSE(find.isHidden());
        if (c->length >= 0) {
            EXPECT_EQ(find.getLength(), c->length);
        }
    } while (find.findNextFile());
    EXPECT_EQ(seen.size(), std::size(cases)) << "each once";
    EXPECT_FALSE(find.findNextFile());
}

TEST(FileFindTest, NothingIsMatched) {
    OrbelTest::TempDirectory directory;
    directory.write("abc/file", "");
    const struct {
        std::string pattern;
        bool found;
    } cases[] = {
        {"", false},
        {"*", false},
        {directory / "ab*", false},
        {directory / "*c*", false},
        {directory / "abc*", true},
        {directory / "abc", true},
        {directory / "abc/file", false},
        {directory.path() + "/" + std::string(300, 'x'), false},
    };
    FileFind find;
    EXPECT_FALSE(find.findFile(nullptr));
    EXPECT_FALSE(find.findNextFile());
    for (const auto& c : cases) {
        EXPECT_EQ(find.findFile(c.pattern.c_str()), c.found) << c.pattern;
    }
    EXPECT_FALSE(find.findNextFile()) << "the failed search has closed the one before";
}

TEST(FileFindTest, EverySearchIsClosedOnce) {
    const long before = OrbelTest::openDescriptors();
    {
        FileFind find;
        for (int turn = 0; turn < 3; ++turn) {
            ASSERT_TRUE(find.findFile("/tmp/*"));
        }
        EXPECT_EQ(OrbelTest::openDescriptors(), before + 1);
        find.close();
        find.close();
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
