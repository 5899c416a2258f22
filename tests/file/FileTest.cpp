// File and LfsFile, which behave alike but where a test says so.
#include "Vantel/Orbel/File.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "Vantel/Orbel/LfsFile.h"
#include "file/FileDefaultOpt.h"
#include "tests/file/Hardship.h"
#include "tests/file/ScriptedFileSystem.h"
#include "tests/file/TempDirectory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OpenDescriptors.h"

using namespace Vantel::Orbel;
using OrbelTest::contentOf;
using OrbelTest::ScriptedFileSystem;
using Asked = std::vector<std::string>;

namespace {

template <class AnyFile>
class BothFilesTest : public testing::Test {
protected:
    static constexpr bool kLarge = std::is_same_v<AnyFile, LfsFile>;

    OrbelTest::TempDirectory mDirectory;
    const std::string mOld = mDirectory.write("old", "0123456789");
    const std::string mNew = mDirectory / "new";
    AnyFile mFile;
    char mBuffer[64] = {};
};

using BothFiles = testing::Types<File, LfsFile>;
TYPED_TEST_SUITE(BothFilesTest, BothFiles, );

TYPED_TEST(BothFilesTest, FlagsBecomeTheModeOfTheTable) {
    const struct {
        uint32_t flags;
        const char* file;
        const char* lfs;
    } cases[] = {
        {0, "rb", "rb"},         {0x2000, "rb", "rb"},   {1, "wb", "wb"},
        {0x1001, "wb", "wb"},    {0x2001, "ab", "ab"},   {0x3001, "ab", "ab"},
        {2, "rb+", "rb+"},       {0x2002, "rb+", "rb+"}, {0x1002, "wb+", "wb+"},
        {0x3002, "ab+", "ab+"},  {0x80, "rbe", "rbe"},   {0x81, "rbe", "wbe"},
        {0x1082, "rbe", "wb+e"}, {0x2012, "rb", "rb+"},  {3, "rb", ""},
        {0x8F, "rbe", "e"},
    };
    ScriptedFileSystem table("/scripted/");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags);
        table.mOpens = false;
        EXPECT_FALSE(this->mFile.open("/scripted/x", c.flags));
        const std::string mode = this->kLarge ? c.lfs : c.file;
        EXPECT_EQ(table.asked(), Asked{"fopen " + mode});
    }
}

TYPED_TEST(BothFilesTest, OpenedFileStartsWhereItsFlagsSay) {
    const struct {
        uint32_t flags;
        uint32_t position;
        uint32_t length;
    } cases[] = {{0, 0, 10}, {2, 0, 10}, {0x2001, 10, 10}, {0x3002, 10, 10}, {0x1002, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags);
        ASSERT_TRUE(this->mFile.open(this->mOld.c_str(), c.flags));
        EXPECT_EQ(this->mFile.getPosition(), c.position);
        EXPECT_EQ(this->mFile.getLength(), c.length);
    }
    EXPECT_FALSE(this->mFile.open(this->mNew.c_str(), 2)) << "without leave to create";
    EXPECT_FALSE(this->mFile.open(nullptr, 0));
    EXPECT_FALSE(this->mFile.open("", 0x1002));
}

TYPED_TEST(BothFilesTest, NothingWorksOnAClosedFileOrWithoutBuffer) {
    auto& file = this->mFile;
    const IOVector vector{this->mBuffer, 1};
    for (int turn = 0; turn < 2; ++turn) {  // never opened, and closed again
        EXPECT_EQ(file.read(this->mBuffer, 1), -1);
        EXPECT_EQ(file.write("x", 1), -1);
        EXPECT_EQ(file.writev(&vector, 1), -1);
        EXPECT_EQ(file.seek(1, TypeParam::kBegin), 0u);
        EXPECT_EQ(file.getLength() + file.getPosition(), 0u);
        EXPECT_EQ(file.gets(this->mBuffer, 2), nullptr);
        EXPECT_EQ(file.puts("x"), 0);
        EXPECT_FALSE(file.flush());
        EXPECT_TRUE(file.close());
        ASSERT_TRUE(file.open(this->mOld.c_str(), 2));
        EXPECT_EQ(file.read(nullptr, 1), -1);
        EXPECT_EQ(file.write(nullptr, 1), -1);
        EXPECT_EQ(file.puts(nullptr), -1);
        EXPECT_EQ(file.gets(nullptr, 1), nullptr);
        EXPECT_EQ(file.gets(this->mBuffer, 0), nullptr);
        EXPECT_EQ(file.read(nullptr, 0), 0);
        file.seek(5, TypeParam::kBegin);
        file.close();
    }
}

TYPED_TEST(BothFilesTest, PositionAndLengthFollowEachOperation) {
    auto& file = this->mFile;
    ASSERT_TRUE(file.open(this->mNew.c_str(), 0x1002));
    EXPECT_GE(file.puts("one\n"), 0);
    EXPECT_EQ(file.write("two\nthree", 9), 9);
    EXPECT_EQ(file.getPosition(), 13u);
    EXPECT_EQ(file.getLength(), 13u);
    EXPECT_EQ(file.seek(-9, TypeParam::kCurrent), 4u);
    EXPECT_EQ(file.write("T", 1), 1);
    EXPECT_EQ(file.getLength(), 13u) << "written in the middle";
    EXPECT_EQ(file.seek(-1, TypeParam::kCurrent), 4u);
    EXPECT_STREQ(file.gets(this->mBuffer, sizeof this->mBuffer), "Two\n");
    EXPECT_EQ(file.getPosition(), 8u);
    EXPECT_STREQ(file.gets(this->mBuffer, 3), "th");
    EXPECT_EQ(file.read(this->mBuffer, 3), 3);
    EXPECT_EQ(file.read(this->mBuffer, 3), 0) << "at the end";
    EXPECT_EQ(file.getPosition(), 13u);
    EXPECT_EQ(file.seek(-100, TypeParam::kCurrent), 0u) << "fails";
    EXPECT_EQ(file.getPosition(), 13u) << "and moves nothing";
    EXPECT_EQ(file.seek(20, TypeParam::kBegin), 20u);
    EXPECT_EQ(file.getLength(), 13u) << "a seek makes no file longer";
    EXPECT_EQ(file.seek(3, static_cast<typename TypeParam::SeekPosition>(7)), 3u);
    EXPECT_EQ(file.seek(0, TypeParam::kEnd), 13u);
    EXPECT_TRUE(file.flush());
    char bytes[] = "abcd";
    const IOVector vectors[] = {{bytes, 1}, {bytes + 1, 3}};
    EXPECT_EQ(file.writev(vectors, 1), 1);
    EXPECT_EQ(file.writev(vectors, 2), 4);
    EXPECT_EQ(file.writev(vectors, -1), -1);
    EXPECT_EQ(file.getPosition(), 18u);
    EXPECT_EQ(file.getLength(), 18u);
    file.close();
    EXPECT_EQ(contentOf(this->mNew), "one\nTwo\nthreeaabcd");
}

TYPED_TEST(BothFilesTest, NoCallIsMadeThatChangesNothing) {
    auto& file = this->mFile;
    ScriptedFileSystem table("/scripted/");
    table.mPosition = 5;
    table.mSize = 9;
    ASSERT_TRUE(file.open("/scripted/x", 0));
    EXPECT_EQ(table.asked(), (Asked{"fopen rb", "ftell", "stat"}));
    EXPECT_EQ(file.seek(5, TypeParam::kBegin), 5u);
    EXPECT_EQ(file.seek(0, TypeParam::kCurrent), 5u);
    EXPECT_EQ(file.getLength(), 9u);
    EXPECT_EQ(table.asked(), Asked{});
    table.mPosition = -1;
    EXPECT_EQ(file.seek(3, TypeParam::kCurrent), 0u);
    EXPECT_EQ(table.asked(), (Asked{"fseek 3 1", "ftell"}));
    EXPECT_EQ(file.getPosition(), 0u);
    EXPECT_EQ(file.seek(8, static_cast<typename TypeParam::SeekPosition>(3)), 0u);
    EXPECT_EQ(table.asked(), Asked{}) << "another whence at position 0";
    ASSERT_TRUE(file.open("/scripted/x", 0x1002));
    EXPECT_EQ(table.asked(), (Asked{"fclose", "fopen wb+", "ftell"})) << "created: no stat";
    table.mPosition = 0;
    EXPECT_EQ(file.getLength(), 0u);
    table.mPosition = 7;
    table.asked();
    EXPECT_EQ(file.getLength(), 7u) << "a length of 0 is asked for again";
    EXPECT_EQ(table.asked(), (Asked{"fseek 0 2", "ftell", "fseek 0 0", "ftell"})) << "and back";
    table.mResult = -1;
    EXPECT_FALSE(file.flush());
    EXPECT_FALSE(file.close()) << "what is lost is told";
    EXPECT_FALSE(file.isOpen());
}

TYPED_TEST(BothFilesTest, LoadReadsTheWholeFileAndKeepsItOpen) {
    auto& file = this->mFile;
    const long before = OrbelTest::openDescriptors();
    const uint8_t* content = file.load(this->mOld.c_str());
    ASSERT_NE(content, nullptr);
    EXPECT_EQ(std::string(content, content + file.getLength()), "0123456789");
    EXPECT_TRUE(file.isOpen());
    EXPECT_DEATH(file.load(this->mOld.c_str()), "Assertion");
    file.unload();
    EXPECT_FALSE(file.isOpen());

    const std::string empty = this->mDirectory.write("empty", "");
    EXPECT_EQ(file.load(empty.c_str()), nullptr);
    EXPECT_TRUE(file.isOpen());
    EXPECT_EQ(file.load(this->mNew.c_str()), nullptr);
    EXPECT_FALSE(file.isOpen());

    OrbelTest::LogCapture log;
    EXPECT_EQ(file.load(this->mDirectory.path().c_str()), nullptr) << "a directory";
    EXPECT_EQ(log.count("]filename(") + log.count("LfsFile::load(): filename("), 1);
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(OrbelTest::openDescriptors(), before);

    ScriptedFileSystem table("/scripted/");
    table.mSize = 4;
    table.mTransfers = {3};
    EXPECT_EQ(file.load("/scripted/short"), nullptr);
    EXPECT_EQ(table.asked().back(), "fclose");
    table.mSize = 0;
    table.mPosition = LONG_MAX;
    EXPECT_EQ(file.load("/scripted/endless"), nullptr) << "as some directories say of themselves";
    EXPECT_EQ(table.asked().back(), "fclose");
}

TEST(FileTest, OneReadAndOneWriteStayWithinTheIntOfTheTable) {
    ScriptedFileSystem table("/scripted/");
    table.mTransfers = {5, -3, 5};
    File file;
    ASSERT_TRUE(file.open("/scripted/x", 2));
    table.asked();
    char byte = 0;
    EXPECT_EQ(file.read(&byte, SIZE_MAX), 5);
    EXPECT_EQ(file.read(&byte, 1), -1);
    table.mPosition = 6;
    EXPECT_EQ(file.write(&byte, 1UL << 32), 5);
    EXPECT_EQ(file.getPosition(), 6u);
    EXPECT_EQ(table.asked(), (Asked{"fread 2147483647", "fread 1", "fwrite 2147483647", "ftell"}));
}

TEST(LfsFileTest, ReadsAndWritesInRoundsUntilTheTableStops) {
    const struct {
        const char* why;
        long size;
        std::vector<int> transfers;
        long total;
        Asked asked;
    } cases[] = {
        {"short rounds", 10, {4, 5, 1}, 10, {"10", "6", "1"}},
        {"the end", 10, {4}, 4, {"10", "6"}},
        {"an error", 10, {4, -1}, 4, {"10", "6"}},
        {"more than was asked for", 10, {4, 7}, 4, {"10", "6"}},
        {"negative size", -1, {9}, 0, {}},
        {"3 GiB in one round", 3L << 30, {INT_MIN + (1 << 30)}, 3L << 30, {"-1073741824"}},
        {"low 32 bits of 4 GiB", 1L << 32, {}, 0, {"0"}},
        {"greatest size", LONG_MAX, {}, 0, {"-1"}},
    };
    OrbelTest::LogCapture log;
    ScriptedFileSystem table("/scripted/");
    LfsFile file;
    ASSERT_TRUE(file.open("/scripted/x", 2));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        Asked expected;
        for (const char* call : {"fread ", "fwrite "}) {
            for (const std::string& count : c.asked) {
                expected.push_back(call + count);
            }
        }
        expected.emplace_back("ftell");
        const int before = log.count("get error,total ");
        char byte = 0;
        table.asked();
        table.mTransfers = c.transfers;
        EXPECT_EQ(file.read(&byte, c.size), c.total);
        table.mTransfers = c.transfers;
        EXPECT_EQ(file.write(&byte, c.size), c.total);
        EXPECT_EQ(table.asked(), expected);
        EXPECT_EQ(log.count("get error,total ") - before, c.total < c.size ? 2 : 0);
    }
}

TEST(LfsFileTest, SparseFileAbove4GiB) {
    constexpr long kSize = (5L << 30) + 3;
    OrbelTest::TempDirectory directory;
    const std::string path = directory.write("sparse", "head");
    ASSERT_EQ(truncate(path.c_str(), kSize), 0);
    LfsFile file;
    char bytes[8] = {};
    ASSERT_TRUE(file.open(path.c_str(), 2));
    EXPECT_EQ(file.getLength(), static_cast<uint64_t>(kSize));
    EXPECT_EQ(file.seek(-3, LfsFile::kEnd), static_cast<uint64_t>(5L << 30));
    EXPECT_EQ(file.write("tail", 4), 4);
    EXPECT_EQ(file.getLength(), static_cast<uint64_t>(kSize + 1));
    EXPECT_EQ(file.seek(-4, LfsFile::kCurrent), static_cast<uint64_t>(5L << 30));
    EXPECT_EQ(file.read(bytes, 4), 4);
    EXPECT_STREQ(bytes, "tail");
    EXPECT_EQ(file.seek((1L << 32) + 2, LfsFile::kBegin), 2u) << "the low 32 bits go there";
    EXPECT_EQ(file.read(bytes, 2), 2);
    EXPECT_EQ(std::string(bytes, 2), "ad");
    EXPECT_EQ(file.gets(bytes, 1L << 31), nullptr);
    EXPECT_TRUE(file.close());

    const struct {
        long size;
        bool larger;
    } sizes[] = {{0xFFFFFFFE, false}, {0xFFFFFFFF, true}, {kSize, true}, {0, false}};
    for (const auto& c : sizes) {
        ASSERT_EQ(truncate(path.c_str(), c.size), 0);
        EXPECT_EQ(File::isLargerFile(path.c_str()), c.larger) << c.size;
    }
    EXPECT_FALSE(File::isLargerFile("/no/such/file"));
}

TEST(FileDefaultOptTest, BufferSizeDescriptorFlagsAndWrongModes) {
    FileDefaultOpt* table = FileDefaultOpt::instance();
    EXPECT_EQ(table->fileBuffer(), 16384);
    for (const int size : {1023, 1024, 32769, 32768, -1, 16384}) {
        const int before = table->fileBuffer();
        table->setFileBuffer(size);
        EXPECT_EQ(table->fileBuffer(), size >= 1024 && size <= 32768 ? size : before);
    }
    for (const char* mode : {"rb", "rbe"}) {
        void* file = table->fopen("/dev/null", mode);
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(fcntl(fileno(static_cast<FILE*>(file)), F_GETFD), mode[2] == 'e' ? 1 : 0);
        EXPECT_EQ(table->fclose(file), 0) << "the disk of a device is nobody's concern";
    }
    LfsFile file;
    EXPECT_DEATH(file.open("/tmp/x", 3), "Assertion") << "an empty mode";
    EXPECT_DEATH(table->fopen("/tmp/x", nullptr), "Assertion");
    EXPECT_TRUE(FileDefaultOpt::isDir(040755) && FileDefaultOpt::isFile(0100644));
    EXPECT_FALSE(FileDefaultOpt::isDir(0100644) || FileDefaultOpt::isFile(0120777));
}

TEST(FileDefaultOptTest, ErrorOfAStreamIsToldOnce) {
    const OrbelTest::TempDirectory directory;
    const OrbelTest::LogCapture log;
    const std::string path = directory.write("file", "text");
    char bytes[8];
    File file;
    ASSERT_TRUE(file.open(path.c_str(), 0));
    EXPECT_EQ(file.write("x", 1), -1);
    EXPECT_EQ(log.count("fwrite failed error:Bad file descriptor"), 1);
    EXPECT_EQ(file.read(bytes, sizeof bytes), 4);
    EXPECT_EQ(file.read(bytes, sizeof bytes), 0) << "the end, and no error any more";
    ASSERT_TRUE(file.open(path.c_str(), 0x2001));
    EXPECT_EQ(file.read(bytes, 1), -1);
    EXPECT_EQ(log.count("fread failed error:Bad file descriptor"), 1);
}

TEST(FileTest, FullDiskAndReadOnlyDirectoryAreFailures) {
    const OrbelTest::TempDirectory directory;
    const std::string content(30000, 'x');
    const std::string full = directory / "full";
    const auto save = [&](size_t size, uint32_t flags) {
        return File::save(full.c_str(), content.data(), size, flags);
    };
    {
        const OrbelTest::FullDisk disk(20000);
        EXPECT_FALSE(save(30000, 0x1002));
        EXPECT_TRUE(save(20000, 0x1002));
        EXPECT_FALSE(save(1, 0x3002)) << "fits into the buffer only";
        EXPECT_FALSE(File::copy("/proc/self/cmdline", full.c_str(), 0x3002)) << "so does this";
        EXPECT_FALSE(File::copy("/proc/self/exe", full.c_str(), 0x1002));
        LfsFile file;
        ASSERT_TRUE(file.open(full.c_str(), 0x3002));
        EXPECT_GE(file.puts("x"), 0);
        EXPECT_FALSE(file.flush());
        char byte = 'x';
        const IOVector vector{&byte, 1};
        EXPECT_EQ(file.writev(&vector, 1), -1);
    }
    const std::string inside = directory / "inside";
    const std::string there = directory.write("inside/file", "text");
    const std::string other = inside + "/other";
    ASSERT_EQ(chmod(inside.c_str(), 0555), 0);
    {
        const OrbelTest::OrdinaryUser user;
        EXPECT_FALSE(File::save(other.c_str(), "x", 1, 0x1002));
        EXPECT_FALSE(File::makeDirectoryWithParent((other + "/b").c_str()));
        EXPECT_FALSE(File::removeDirectoryForce(inside.c_str()));
        EXPECT_FALSE(File::copyDirectoryForce(inside.c_str(), other.c_str()));
    }
    EXPECT_EQ(contentOf(there), "text");
    chmod(inside.c_str(), 0755);
}

}  // namespace
