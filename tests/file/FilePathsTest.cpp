// The static operations of File on paths and trees.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <functional>

#include "Vantel/Orbel/File.h"
#include "file/FileDefaultOpt.h"
#include "tests/file/ScriptedFileSystem.h"
#include "tests/file/TempDirectory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OpenDescriptors.h"

using namespace Vantel::Orbel;
using OrbelTest::contentOf;
using OrbelTest::ScriptedFileSystem;
using OrbelTest::TempDirectory;
using Asked = std::vector<std::string>;

namespace {

TEST(FilePathsTest, OperationsGoToTheMountAndRefuseEmptyPaths) {
    FileInfo info{};
    uint64_t avail = 0;
    uint64_t total = 0;
    uint64_t free = 0;
    const struct {
        std::function<bool(const char*)> call;
        const char* asked;
    } cases[] = {
        {[](const char* p) { return File::rename(p, "/y"); }, "rename"},
        {[](const char* p) { return File::remove(p); }, "remove"},
        {[](const char* p) { return File::makeDirectory(p); }, "mkdir"},
        {[](const char* p) { return File::removeDirectory(p); }, "rmdir"},
        {[](const char* p) { return File::access(p, 4); }, "access 4"},
        {[](const char* p) { return File::exist(p); }, "access 0"},
        {[&](const char* p) { return File::stat(p, info); }, "stat"},
        {[](const char* p) { return File::empty(p); }, "stat"},
        {[&](const char* p) { return File::statFS(p, avail, total, free) && avail == 42; },
         "statfs"},
    };
    ScriptedFileSystem table("/scripted/");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.asked);
        for (const int result : {0, -1, 1}) {
            table.mResult = result;
            EXPECT_EQ(c.call("/scripted/x"), result == 0);
            EXPECT_EQ(table.asked(), Asked{c.asked});
        }
        EXPECT_FALSE(c.call(nullptr));
        EXPECT_FALSE(c.call(""));
    }
    hookFileSystem(nullptr, nullptr);
    EXPECT_FALSE(File::rename("/x", nullptr));
    EXPECT_FALSE(File::isDirectory(nullptr) || File::isLargerFile("") || File::isEmptyDir(""));
    EXPECT_FALSE(File::removeDirectoryForce("") || File::removeEmptyDirs(nullptr, 0));
    EXPECT_FALSE(File::copy("", "/x", 1) || File::copyDirectoryForce("/tmp", nullptr));
    EXPECT_FALSE(File::save(nullptr, "x", 1, 1) || File::symlink("/x", ""));
}

TEST(FilePathsTest, WhatTheDefaultTableTellsOfAPath) {
    const TempDirectory directory;
    const OrbelTest::LogCapture log;
    const std::string file = directory.write("file", "text");
    const std::string link = directory / "link";
    ASSERT_TRUE(File::symlink(file.c_str(), link.c_str()));
    EXPECT_FALSE(File::symlink(file.c_str(), link.c_str()));
    EXPECT_TRUE(log.has("link " + file + " to " + link + " failed,error message:File exists"));
    ASSERT_EQ(chmod(file.c_str(), 0444), 0);
    FileInfo info{};
    ASSERT_TRUE(File::stat(link.c_str(), info));
    EXPECT_EQ(info.name, link);
    EXPECT_EQ(info.attr, FileInfo::kReadOnly);
    EXPECT_EQ(info.mode, 0100444u);
    EXPECT_EQ(info.size, 4);
    EXPECT_EQ(info.nlink, 1);
    EXPECT_EQ(info.uid, getuid());
    EXPECT_LT(std::abs(info.writeAt - time(nullptr)), 100);
    ASSERT_TRUE(File::stat(directory.path().c_str(), info));
    EXPECT_EQ(info.attr, FileInfo::kDirectory);
    EXPECT_TRUE(File::isDirectory(directory.path().c_str()) && !File::isDirectory(file.c_str()));
    EXPECT_FALSE(File::isEmptyDir(directory.path().c_str()) || File::isEmptyDir(file.c_str()));
    EXPECT_FALSE(File::empty(file.c_str()));
    uint64_t avail = 0;
    uint64_t total = 0;
    uint64_t free = 0;
    ASSERT_TRUE(File::statFS("/tmp", avail, total, free));
    EXPECT_TRUE(avail <= free && free <= total && total > 1 << 20);
}

TEST(FilePathsTest, MakesParentsButNoFirstComponent) {
    const TempDirectory directory;
    directory.write("file", "");
    const struct {
        std::string path;
        bool made;
        bool there;
    } cases[] = {
        {"", true, false},
        {"/" + OrbelTest::uniqueName("top"), true, false},
        {OrbelTest::uniqueName("relative") + "/b", false, false},
        {"//", true, true},
        {directory / "a", true, true},
        {directory / "b/c//d//", true, true},
        {directory / "file", true, false},  // it exists, whatever it is
        {directory / "file/below", false, false},
        {std::string(1 << 20, '/'), false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path.substr(0, 100));
        EXPECT_EQ(File::makeDirectoryWithParent(c.path.c_str()), c.made);
        EXPECT_EQ(FileDefaultOpt::instance()->makeDirectoryWithParent(c.path.c_str()), c.made);
        EXPECT_EQ(File::isDirectory(c.path.c_str()), c.there);
    }
    EXPECT_TRUE(File::makeDirectoryWithParent(nullptr));
}

TEST(FilePathsTest, CopyAndSave) {
    const TempDirectory directory;
    const std::string content(4096 * 3 + 1, 'c');
    const std::string from = directory.write("from", content);
    const std::string to = directory.write("to", "old");
    EXPECT_TRUE(File::copy(from.c_str(), to.c_str(), 0x2001));
    EXPECT_EQ(contentOf(to), "old" + content);
    EXPECT_FALSE(File::copy((directory / "missing").c_str(), to.c_str(), 0x1002));
    EXPECT_EQ(contentOf(to), "old" + content) << "the target was touched";
    EXPECT_FALSE(File::copy(from.c_str(), (directory / "missing").c_str(), 2));
    std::filesystem::create_hard_link(from, directory / "same");
    EXPECT_FALSE(File::copy(from.c_str(), (directory / "same").c_str(), 0x1002));
    EXPECT_EQ(contentOf(from), content) << "a file copied to itself";
    EXPECT_TRUE(File::save(to.c_str(), "x\0y", 3, 1));
    EXPECT_EQ(contentOf(to), std::string("x\0y", 3));
    EXPECT_FALSE(File::save(to.c_str(), "x", 1, 0)) << "opened for reading";
    EXPECT_TRUE(File::save(to.c_str(), nullptr, 0, 1));
    EXPECT_TRUE(File::empty(to.c_str()));
}

/// A directory with "file" outside of the tree, and the tree "t" with links to both.
class FileTreesTest : public testing::Test {
protected:
    FileTreesTest() {
        mDirectory.write("outside/file", "outside");
        mDirectory.write("t/a/deep/file", "deep");
        mDirectory.write("t/" + std::string(255, 'n'), "long");
        link("../outside", "t/toDirectory");
        link("../outside/file", "t/toFile");
    }
    void link(const char* to, const std::string& name) {
        ASSERT_EQ(::symlink(to, (mDirectory / name).c_str()), 0);
    }
    bool exists(const std::string& name) const {
        struct stat status {};
        return lstat((mDirectory / name).c_str(), &status) == 0;
    }
    /// A chain of directories below `name`, whose last path has 1023 or more bytes.
    void tooDeep(const std::string& name) const {
        std::filesystem::create_directories(mDirectory / name);
        const auto home = std::filesystem::current_path();
        std::filesystem::current_path(mDirectory / name);
        for (int i = 0; i < 11; ++i) {
            std::filesystem::create_directory(std::string(100, 'd'));
            std::filesystem::current_path(std::string(100, 'd'));
        }
        std::filesystem::current_path(home);
    }

    TempDirectory mDirectory;
    OrbelTest::LogCapture mLog;
    const std::string mTree = mDirectory / "t";
    const std::string mCopy = mDirectory / "copy/of/it";
};

TEST_F(FileTreesTest, RemovalTakesLinksAndLongNamesAndLeavesTheRest) {
    const long before = OrbelTest::openDescriptors();
    link("nowhere", "t/dangling");
    EXPECT_TRUE(File::removeDirectoryForce((mDirectory / "t/toFile").c_str()));
    EXPECT_TRUE(File::removeDirectoryForce(mTree.c_str()));
    EXPECT_FALSE(exists("t"));
    EXPECT_EQ(contentOf(mDirectory / "outside/file"), "outside");
    EXPECT_FALSE(File::removeDirectoryForce(mTree.c_str()));
    EXPECT_TRUE(mLog.has("get directory " + mTree + " stat error"));
    EXPECT_EQ(OrbelTest::openDescriptors(), before);
}

TEST_F(FileTreesTest, PathsThatDoNotFitAreRefusedAndNotCut) {
    tooDeep("t/x");
    EXPECT_FALSE(File::removeDirectoryForce((mDirectory / "t/x").c_str()));
    EXPECT_TRUE(exists("t/x/" + std::string(100, 'd')));
    EXPECT_TRUE(mLog.has("remove directory path " + (mDirectory / "t/x/d")));
    EXPECT_FALSE(File::removeEmptyDirs((mDirectory / "t/x").c_str(), -10));
    EXPECT_TRUE(mLog.has("stat failed: File name too long"));
    EXPECT_FALSE(File::copyDirectoryForce((mDirectory / "t/x").c_str(), mCopy.c_str()));
}

TEST_F(FileTreesTest, CopyFollowsLinksToTheirContent) {
    link("../outside", "t/again");
    EXPECT_TRUE(File::copyDirectoryForce(mTree.c_str(), mCopy.c_str()));
    EXPECT_EQ(contentOf(mCopy + "/a/deep/file"), "deep");
    EXPECT_EQ(contentOf(mCopy + "/toDirectory/file"), "outside");
    EXPECT_EQ(contentOf(mCopy + "/again/file"), "outside") << "beside itself, and not below";
    EXPECT_EQ(contentOf(mCopy + "/toFile"), "outside");
    EXPECT_EQ(contentOf(mCopy + "/" + std::string(255, 'n')), "long");
    EXPECT_FALSE(std::filesystem::is_symlink(mCopy + "/toFile"));
    mDirectory.write("copy/of/it/a/deep/file", "a longer content");
    EXPECT_TRUE(File::copyDirectoryForce(mTree.c_str(), mCopy.c_str())) << "over what is there";
    EXPECT_EQ(contentOf(mCopy + "/a/deep/file"), "deep");
}

TEST_F(FileTreesTest, CopyEndsWhereItCannotGoOn) {
    EXPECT_FALSE(File::copyDirectoryForce((mDirectory / "missing").c_str(), mCopy.c_str()));
    EXPECT_FALSE(File::copyDirectoryForce((mTree + "/toFile").c_str(), mCopy.c_str()));
    EXPECT_EQ(mLog.count("source path not found!"), 2);
    EXPECT_FALSE(File::copyDirectoryForce(mTree.c_str(), (mTree + "/toFile/x").c_str()));
    EXPECT_EQ(mLog.count("Create Dir Failed..."), 1);
    const struct {
        const char* why;
        std::function<void(const std::string&)> spoil;
        std::string to;
    } cases[] = {
        {"onto itself", [](const std::string&) {}, mTree},
        {"a link to above", [](const std::string& at) { ::symlink("..", at.c_str()); }, mCopy},
        {"a link to nowhere", [](const std::string& at) { ::symlink("x", at.c_str()); }, mCopy},
        {"a pipe", [](const std::string& at) { mkfifo(at.c_str(), 0600); }, mCopy},
        {"into a part of itself", [](const std::string&) {}, mTree + "/a/deep"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        const int before = mLog.count("Copy From ");
        c.spoil(mTree + "/a/spoilt");
        EXPECT_FALSE(File::copyDirectoryForce(mTree.c_str(), c.to.c_str()));
        EXPECT_GT(mLog.count("Copy From "), before);
        for (const char* below : {"/a/spoilt/a", "/a/deep/a"}) {
            EXPECT_FALSE(File::exist((c.to + below).c_str())) << "went round";
        }
        unlink((mTree + "/a/spoilt").c_str());
        EXPECT_EQ(contentOf(mTree + "/a/deep/file"), "deep");
    }
}

TEST_F(FileTreesTest, EmptyDirectoriesOfSomeAgeGo) {
    const struct {
        const char* name;
        int age;
        bool stays;
    } cases[] = {
        {"t/old", 1000, false},
        {"t/young", 10, true},
        {"t/nest/inner", 1000, false},
        {"t/nest", 1000, false},  // as old as it was before
        {"t/youngNest/inner", 1000, false},
        {"t/youngNest", 10, true},
        {"outside/old", 1000, false},  // behind a link
        {"t/a/deep", 1000, true},      // has a file
    };
    for (const auto& c : cases) {
        std::filesystem::create_directories(mDirectory / c.name);
    }
    link(".", "t/toItself");
    for (const auto& c : cases) {
        const timespec times[] = {{time(nullptr) - c.age, 0}, {time(nullptr) - c.age, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, (mDirectory / c.name).c_str(), times, 0), 0);
    }
    EXPECT_TRUE(File::removeEmptyDirs(mTree.c_str(), 500));
    for (const auto& c : cases) {
        EXPECT_EQ(exists(c.name), c.stays) << c.name;
    }
    EXPECT_TRUE(File::removeEmptyDirs((mDirectory / "t/young").c_str(), -10));
    EXPECT_TRUE(exists("t/young")) << "empty, and the root itself";

    link("nowhere", "t/dangling");
    unlink((mDirectory / "outside/file").c_str());
    EXPECT_FALSE(File::removeEmptyDirs(mTree.c_str(), -10)) << "tells what it could not do";
    EXPECT_TRUE(mLog.has("get dir " + mTree + "/dangling stat failed: No such file"));
    EXPECT_TRUE(mLog.has("rmdir " + mTree + "/toDirectory failed: Not a directory"));
    EXPECT_FALSE(exists("t/young")) << "and goes on";
    EXPECT_FALSE(File::removeEmptyDirs((mDirectory / "missing").c_str(), 0));
    EXPECT_TRUE(mLog.has("open dir " + (mDirectory / "missing") + " failed: No such file"));
}

}  // namespace
