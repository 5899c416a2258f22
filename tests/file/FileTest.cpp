// File and LfsFile, which behave alike but where a test says so.
#include "Vantel/Orbel/File.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "Vantel/Orbel/LfsFile.h"
#include "file/FileDefaultOpt.h"
#include "tests/file/ScriptedFileSystem.h"
#include "tests/file/TempDirectory.h"
#include "tests/support/HelperProcess.h"
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
        const char* why;
        uint32_t flags;
        bool opensNew;
        uint32_t position;
        uint32_t length;
        const char* content;  // after "ab" was written
    } cases[] = {
        {"read", 0, false, 0, 10, "0123456789"},
        {"write truncates", 1, true, 0, 0, "ab"},
        {"append", 0x2001, true, 10, 10, "0123456789ab"},
        {"update keeps", 2, false, 0, 10, "ab23456789"},
        {"create truncates", 0x1002, true, 0, 0, "ab"},
        {"create and append", 0x3002, true, 10, 10, "0123456789ab"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        const std::string missing = this->mDirectory / c.why;
        EXPECT_EQ(this->mFile.open(missing.c_str(), c.flags), c.opensNew);
        this->mDirectory.write("old", "0123456789");
        ASSERT_TRUE(this->mFile.open(this->mOld.c_str(), c.flags));
        EXPECT_EQ(this->mFile.getPosition(), c.position);
        EXPECT_EQ(this->mFile.getLength(), c.length);
        const bool writes = c.flags != 0;
        // Against a read-only stream a write is an error; the wide sibling counts what it wrote.
        EXPECT_EQ(this->mFile.write("ab", 2), writes ? 2 : this->kLarge ? 0 : -1);
        if (writes) {
            EXPECT_EQ(this->mFile.getPosition(), c.position + 2);
            EXPECT_EQ(this->mFile.getLength(), std::max(c.length, c.position + 2));
        }
        EXPECT_TRUE(this->mFile.close());
        EXPECT_EQ(contentOf(this->mOld), c.content);
    }
    EXPECT_FALSE(this->mFile.open(nullptr, 0));
    EXPECT_FALSE(this->mFile.open("", 0x1002));
}

TYPED_TEST(BothFilesTest, NothingWorksOnAClosedFile) {
    auto& file = this->mFile;
    const IOVector vector{this->mBuffer, 1};
    for (int turn = 0; turn < 2; ++turn) {
        EXPECT_FALSE(file.isOpen());
        EXPECT_EQ(file.read(this->mBuffer, 1), -1);
        EXPECT_EQ(file.write("x", 1), -1);
        EXPECT_EQ(file.writev(&vector, 1), -1);
        EXPECT_EQ(file.seek(1, TypeParam::kBegin), 0u);
        EXPECT_EQ(file.getLength() + file.getPosition(), 0u);
        EXPECT_EQ(file.gets(this->mBuffer, 2), nullptr);
        EXPECT_EQ(file.puts("x"), 0);
        EXPECT_FALSE(file.flush());
        EXPECT_TRUE(file.close());
        file.unload();
        ASSERT_TRUE(file.open(this->mOld.c_str(), 2));
        EXPECT_EQ(file.read(nullptr, 1), -1);
        EXPECT_EQ(file.write(nullptr, 1), -1);
        EXPECT_EQ(file.puts(nullptr), -1);
        EXPECT_EQ(file.gets(nullptr, 1), nullptr);
        EXPECT_EQ(file.gets(this->mBuffer, 0), nullptr);
        EXPECT_EQ(file.read(nullptr, 0), 0);
        EXPECT_EQ(file.getPosition(), 0u);
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
    EXPECT_STREQ(file.gets(this->mBuffer, sizeof this->mBuffer), "two\n");
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
    EXPECT_EQ(contentOf(this->mNew), "one\ntwo\nthreeaabcd");
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
    table.mPosition = 7;
    for (int turn = 0; turn < 2; ++turn) {
        table.mPosition = turn == 0 ? 0 : 7;
        EXPECT_EQ(file.getLength(), turn == 0 ? 0u : 7u) << "a length of 0 is asked for again";
    }
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
        {"one round", 10, {10}, 10, {"10"}},
        {"short rounds", 10, {4, 5, 1}, 10, {"10", "6", "1"}},
        {"the end", 10, {4}, 4, {"10", "6"}},
        {"an error", 10, {4, -1}, 4, {"10", "6"}},
        {"more than was asked for", 10, {4, 7}, 4, {"10", "6"}},
        {"negative and not -1", 10, {-5}, 0, {"10"}},
        {"nothing to do", 0, {9}, 0, {}},
        {"negative size", -1, {9}, 0, {}},
        {"3 GiB in one round", 3L << 30, {INT_MIN + (1 << 30)}, 3L << 30, {"-1073741824"}},
        {"low 32 bits of 4 GiB", 1L << 32, {}, 0, {"0"}},
        {"greatest size", LONG_MAX, {}, 0, {"-1"}},
    };
    ScriptedFileSystem table("/scripted/");
    LfsFile file;
    ASSERT_TRUE(file.open("/scripted/x", 2));
    for (const char* call : {"fread ", "fwrite "}) {
        const bool reads = call[1] == 'r';
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(call) + c.why);
            OrbelTest::LogCapture log;
            table.asked();
            table.mTransfers = c.transfers;
            char byte = 0;
            EXPECT_EQ(reads ? file.read(&byte, c.size) : file.write(&byte, c.size), c.total);
            Asked expected;
            for (const std::string& count : c.asked) {
                expected.push_back(call + count);
            }
            if (!reads) {
                expected.push_back("ftell");
            }
            EXPECT_EQ(table.asked(), expected);
            const bool stopped = c.total < c.size;
            EXPECT_EQ(log.has(reads ? "read get error,total " : "write get error,total "), stopped);
        }
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

TEST(FileDefaultOptTest, BufferSizeAndDescriptorFlags) {
    FileDefaultOpt* table = FileDefaultOpt::instance();
    EXPECT_EQ(table->fileBuffer(), 16384);
    int expected = 16384;
    for (const int size : {1023, 1024, 32769, 32768, -1, 0, 16384}) {
        table->setFileBuffer(size);
        expected = size >= 1024 && size <= 32768 ? size : expected;
        EXPECT_EQ(table->fileBuffer(), expected) << size;
    }
    for (const char* mode : {"rb", "rbe"}) {
        void* file = table->fopen("/dev/null", mode);
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(fcntl(fileno(static_cast<FILE*>(file)), F_GETFD), mode[2] == 'e' ? 1 : 0);
        EXPECT_EQ(table->fclose(file), 0);
    }
    LfsFile file;
    EXPECT_DEATH(file.open("/tmp/x", 3), "Assertion") << "an empty mode";
    EXPECT_DEATH(table->fopen("/tmp/x", nullptr), "Assertion");
    EXPECT_TRUE(FileDefaultOpt::isDir(040755) && FileDefaultOpt::isFile(0100644));
    EXPECT_FALSE(FileDefaultOpt::isDir(0100644) || FileDefaultOpt::isFile(0120777));
}

TEST(FileDefaultOptTest, ErrorOfAStreamIsToldOnce) {
    OrbelTest::TempDirectory directory;
    const std::string path = directory.write("file", "text");
    OrbelTest::LogCapture log;
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
    OrbelTest::TempDirectory directory;
    const std::string file = directory.write("inside/file", "text");
    ASSERT_EQ(chmod((directory / "inside").c_str(), 0555), 0);
    const struct {
        const char* role;
        Asked lines;
    } cases[] = {
        {"full",
         {"save 0", "save what fits 1", "append 0", "copy 0", "puts 1", "flush 0",
          "writev past the end -1"}},
        {"readonly",
         {"open 0", "save 0", "copy 0", "remove 0", "rename 0", "makeDirectory 0",
          "removeDirectoryForce 0", "removeEmptyDirs 1", "symlink 0", "copyDirectoryForce 0",
          "load 1"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.role);
        OrbelTest::HelperProcess helper("FileHelper", {c.role, directory.path()});
        for (const std::string& expected : c.lines) {
            std::string line;
            ASSERT_TRUE(helper.readLine(line)) << expected;
            EXPECT_EQ(line, expected);
        }
        EXPECT_EQ(helper.wait(), 0);
    }
    EXPECT_EQ(contentOf(file), "text");
    chmod((directory / "inside").c_str(), 0755);
}

}  // namespace
