#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <thread>

#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/File.h"
#include "file/FileCacheImpl.h"
#include "tests/file/Hardship.h"
#include "tests/file/TempDirectory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Orbel;
using OrbelTest::contentOf;

namespace {

class FileCacheTest : public testing::Test {
protected:
    FileCacheTest() {
        mDirectory.write("cache/sub/left", "by an earlier process");
        mConfig["path"] = mDirectory / "cache";
        mConfig["count"] = 1;
        mConfig["expireUnit"] = 0;
        mCache.initialize(mConfig);
    }
    bool put(const IFileCache::CachePtr& cache, const std::string& text) {
        return cache->update(reinterpret_cast<const uint8_t*>(text.data()),
                             static_cast<uint32_t>(text.size()));
    }
    bool inside(const std::string& name) { return File::exist((mDirectory / name).c_str()); }

    OrbelTest::TempDirectory mDirectory;
    OrbelTest::LogCapture mLog;
    Json::Value mConfig;
    FileCacheImpl mCache;
};

TEST_F(FileCacheTest, DirectoryIsEmptiedOnceAndNeverOneThatHoldsMore) {
    EXPECT_FALSE(inside("cache/sub")) << "an earlier process left it";
    ASSERT_TRUE(mCache.createCache("a", 0));
    mConfig["path"] = mDirectory / "other";
    mCache.initialize(mConfig);
    EXPECT_EQ(mCache.getCachePath(), mDirectory / "cache");
    EXPECT_TRUE(inside("cache/a"));

    FileCacheImpl cache;
    for (const Json::Value& config :
         {Json::Value(), Json::Value("text"), Json::Value(Json::objectValue)}) {
        cache.initialize(config);
    }
    const auto home = std::filesystem::current_path();
    mDirectory.write("here/below/file", "stays");
    std::filesystem::current_path(mDirectory / "here/below");
    for (const char* path : {"", "/", ".", "..", "../below/", "//", "../../here/."}) {
        mConfig["path"] = path;
        cache.initialize(mConfig);
        EXPECT_EQ(cache.setFileCache("file", 0), -1) << "'" << path << "' was taken";
    }
    std::filesystem::current_path(home);
    EXPECT_EQ(contentOf(mDirectory / "here/below/file"), "stays");
    EXPECT_DEATH(cache.getCachePath(), "Assertion");
    EXPECT_DEATH(cache.createCache(0), "Assertion");
}

TEST_F(FileCacheTest, OneMoreThanTheLimitFits) {
    const auto first = mCache.createCache(0);
    EXPECT_EQ(first->name().size(), (mDirectory / "cache/").size() + 32);
    EXPECT_FALSE(mCache.createCache("no/such/directory", 0));
    const std::string outside = mDirectory.write("outside", "text");
    EXPECT_FALSE(mCache.createCache("../outside", 0));
    ASSERT_TRUE(mCache.createCache("b", 0)) << "what could not be opened took a place";
    EXPECT_FALSE(mCache.createCache("c", 0));
    EXPECT_EQ(mCache.setFileCache(outside, 0), -1);
    EXPECT_EQ(contentOf(outside), "text");
    EXPECT_TRUE(mCache.removeCache(first, true));
    EXPECT_FALSE(mCache.removeCache(first, true));
    EXPECT_FALSE(mCache.removeCache(IFileCache::CachePtr(), true));
    EXPECT_FALSE(put(first, "x")) << "closed under its writer";
    EXPECT_FALSE(File::exist(first->name().c_str()));
    EXPECT_TRUE(mCache.createCache("d", 0));
}

TEST_F(FileCacheTest, FilesOfSomeAgeGoUnlessTheyAreWritten) {
    ASSERT_TRUE(mCache.createCache("forever", 0));
    const auto brief = mCache.createCache("brief", 100);
    const uint64_t start = CTime::getCurrentMilliSecond();
    for (uint64_t now = start; now <= start + 150; now = CTime::getCurrentMilliSecond()) {
        ASSERT_TRUE(put(brief, "x"));
        mCache.checkExpireCacheFile();
        if (CTime::getCurrentMilliSecond() > now + 100) {
            GTEST_SKIP() << "the machine is too busy to write often enough";
        }
        ASSERT_TRUE(inside("cache/brief")) << "it gets older than its 100 ms";
    }
    EXPECT_TRUE(brief->close());
    EXPECT_TRUE(OrbelTest::waitFor([&] {
        EXPECT_FALSE(put(brief, "x"));  // makes it no younger
        mCache.checkExpireCacheFile();
        return !inside("cache/brief");
    }));
    std::string name;
    EXPECT_FALSE(mCache.getCache(1, name));
    EXPECT_TRUE(mCache.getCache(0, name));
    EXPECT_EQ(name, mDirectory / "cache/forever");
}

TEST_F(FileCacheTest, FilesComeFromOutsideAndGoToTheirPlace) {
    const std::string from = mDirectory.write("from", "taken in");
    const std::string place = mDirectory / "place";
    std::filesystem::create_directory(place);
    std::string result;
    std::string name;
    EXPECT_EQ(mCache.setFileCache("", 0), -1);
    EXPECT_EQ(mCache.setFileCache(mDirectory / "missing", 0), -1);
    EXPECT_EQ(mCache.setFileCache(mDirectory.path(), 0), -1) << "moved into itself";
    const long taken = mCache.setFileCache(from, 0);
    EXPECT_FALSE(inside("from"));
    ASSERT_TRUE(mCache.getCache(taken, name));
    EXPECT_EQ(contentOf(name), "taken in");

    const auto written = mCache.createCache("written", 0);
    ASSERT_TRUE(put(written, "content"));
    EXPECT_FALSE(mCache.moveCacheToPath(taken + 1, mDirectory / "missing", result));
    EXPECT_EQ(mLog.count("rename file failed,src:"), 2);
    EXPECT_TRUE(put(written, " and more")) << "it is as it was";
    EXPECT_TRUE(mCache.moveCacheToPath(taken + 1, place, result));
    EXPECT_EQ(result, place + "/written");
    EXPECT_EQ(contentOf(result), "content and more");
    EXPECT_FALSE(put(written, "x"));
    EXPECT_FALSE(mCache.moveCacheToPath(taken + 1, place, result));
    EXPECT_TRUE(mCache.moveCacheToPath(taken, mDirectory / "cache/.", result)) << "where it is";
    EXPECT_EQ(contentOf(result), "taken in");

    EXPECT_TRUE(mCache.moveFile2Path(result, place, result, name));
    EXPECT_EQ(result, place + "/" + name);
    EXPECT_FALSE(mCache.moveFile2Path("/no/such", place, result, name));
    EXPECT_EQ(name, "such");
    EXPECT_TRUE(mLog.has("/no/such,dst " + place + "/such, message No such file or directory "));
    EXPECT_EQ(mCache.parserFileName("a/") + mCache.parserFileName("d"), "d");

    const auto kept = mCache.createCache("kept", 0);
    EXPECT_TRUE(mCache.removeCache(kept, false));
    EXPECT_TRUE(put(kept, "still open") && kept->close());
    EXPECT_EQ(contentOf(kept->name()), "still open");

    const auto brief = mCache.createCache("brief", 0);
    const OrbelTest::FullDisk full(3);
    EXPECT_TRUE(put(brief, "fits into the buffer only"));
    EXPECT_FALSE(mCache.moveCacheToPath(taken + 3, place, result));
    EXPECT_FALSE(inside("place/brief")) << "it came up short";
}

TEST_F(FileCacheTest, FilesAreRemovedUnderTheHandsOfTheirWriters) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([this] {
            for (int turn = 0; turn < 40; ++turn) {
                const auto cache = mCache.createCache(1);
                for (int i = 0; i < 5 && cache && put(cache, "text"); ++i) {
                    mCache.checkExpireCacheFile();
                    std::this_thread::sleep_for(std::chrono::milliseconds(turn % 4));
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(OrbelTest::waitFor([this] {
        mCache.checkExpireCacheFile();
        return File::isEmptyDir((mDirectory / "cache").c_str());
    }));
}

}  // namespace
