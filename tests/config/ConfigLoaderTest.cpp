#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include <string>

#include "Vantel/Config/CConfigLoader.h"
#include "Vantel/Orbel/CThreadLite.h"
#include "Vantel/Orbel/ErrorState.h"
#include "tests/config/ConfigSupport.h"
#include "tests/support/WaitFor.h"

using OrbelTest::contentOf;
using OrbelTest::json;
using OrbelTest::nested;
using OrbelTest::TempDirectory;
using Vantel::Config::CConfigLoader;
using Vantel::Orbel::CThreadLite;
using Vantel::Orbel::getLastErrno;

namespace {

CConfigLoader& loader() {
    return *CConfigLoader::instance();
}

class ConfigLoaderTest : public testing::Test {
protected:
    TempDirectory mDirectory;
    std::string mFile = mDirectory / "robot";
    Json::Value mValue = "old";
};

TEST_F(ConfigLoaderTest, WhatIsNoDocumentGivesNull) {
    EXPECT_FALSE(loader().loadConfig(mFile.c_str(), mValue));
    EXPECT_FALSE(loader().loadConfig(nullptr, mValue));
    EXPECT_EQ(mValue, "old") << "no file, no change";

    const std::string cases[] = {"",
                                 "null",
                                 "5",
                                 R"({"a":1,})",
                                 R"({"a":1} // b)"
                                 "\xff",
                                 R"(["half", "\xe4)"
                                 "\xb8\"]",
                                 "{\"overlong\":\"\xc0\xaf\"}",
                                 "{\"surrogate\":\"\xed\xa0\x80\"}",
                                 "{\"latin\":\"M\xfcller\"}",
                                 nested(100000, "[", "]"),
                                 nested(100000, "{\"k\":", ""),
                                 std::string(100, '\0')};
    for (const std::string& text : cases) {
        SCOPED_TRACE(text.substr(0, 40));
        mDirectory.write("robot", text);
        mValue = "old";
        EXPECT_FALSE(loader().loadConfig(mFile.c_str(), mValue));
        EXPECT_TRUE(mValue.isNull());
        EXPECT_EQ(contentOf(mFile), text);
    }
    mValue = "old";
    EXPECT_FALSE(loader().loadConfig(mDirectory.path().c_str(), mValue)) << "a directory";
    EXPECT_TRUE(mValue.isNull());
    const std::string huge = mDirectory.write("huge", "[1]");
    ASSERT_EQ(truncate(huge.c_str(), (1LL << 32) + 3), 0);
    EXPECT_FALSE(loader().loadConfig(huge.c_str(), mValue)) << "a length of 3 in 32 bits";
}

TEST_F(ConfigLoaderTest, ADocumentComesBackAsItWasSaved) {
    const Json::Value saved = json(
        R"({"n":-1,"big":18446744073709551615,"t":"\u4e2d\ud83d\ude00\"\u0000","a":[{}, 0.1]})");
    mDirectory.write("robot", std::string(10000, 'x'));  // longer than what comes
    ASSERT_TRUE(loader().saveConfig(mFile.c_str(), saved));
    ASSERT_TRUE(loader().loadConfig(mFile.c_str(), mValue));
    EXPECT_EQ(mValue, saved);
    mDirectory.write("robot", "{\"utf\":\"\u4e2d\U0001F600\"} trailing");
    ASSERT_TRUE(loader().loadConfig(mFile.c_str(), mValue));
    EXPECT_EQ(mValue["utf"], "\u4e2d\U0001F600");

    ASSERT_TRUE(loader().saveConfig(mFile.c_str(), Json::Value()));
    EXPECT_EQ(contentOf(mFile), "null\n");
    EXPECT_FALSE(loader().loadConfig(mFile.c_str(), mValue)) << "written, but no document";
}

TEST_F(ConfigLoaderTest, SavingSaysWhyItFailed) {
    const Json::Value value = json(R"({"text":"longer than the disk"})");
    getLastErrno();
    for (const char* path : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_FALSE(loader().saveConfig(path, value));
        EXPECT_EQ(getLastErrno(), 0x10060002);
    }
    const auto refused = [&] {
        return !loader().saveConfig(mFile.c_str(), value) && getLastErrno() == 0x10060001;
    };
    {
        const OrbelTest::FullDisk full(10);
        EXPECT_TRUE(refused());
    }
    ASSERT_EQ(unlink(mFile.c_str()), 0);
    ASSERT_EQ(chmod(mDirectory.path().c_str(), 0555), 0);
    {
        const OrbelTest::OrdinaryUser user;
        EXPECT_TRUE(refused()) << "a directory that must not be written";
    }
    ASSERT_EQ(chmod(mDirectory.path().c_str(), 0755), 0);
    EXPECT_EQ(contentOf(mFile), "<cannot open>");
    mFile = mDirectory / "no/such/directory";
    EXPECT_TRUE(refused());
}

TEST_F(ConfigLoaderTest, FilesOfAnyContent) {
    std::string out = "old";
    EXPECT_FALSE(loader().readFile(mFile.c_str(), out));
    EXPECT_FALSE(loader().readFile(nullptr, out));
    mDirectory.write("robot", "");
    EXPECT_FALSE(loader().readFile(mFile.c_str(), out));
    EXPECT_EQ(out, "old");
    mDirectory.write("robot", std::string("\0\xff\n", 3));
    EXPECT_TRUE(loader().readFile(mFile.c_str(), out));
    EXPECT_EQ(out, std::string("\0\xff\n", 3));
    loader().flushConfigFile(mFile.c_str());
    EXPECT_EQ(contentOf(mFile).size(), 3u);
    EXPECT_FALSE(loader().readFile(mDirectory.path().c_str(), out));
    EXPECT_EQ(out, "");
}

/// The deepest documents there are, loaded in a thread with the least of stacks.
class SmallStack {
public:
    explicit SmallStack(const TempDirectory& directory) : mDirectory(directory) {
        for (const int levels : kLevels) {
            mDirectory.write("a" + std::to_string(levels), nested(levels, "[", "]"));
            mDirectory.write("o" + std::to_string(levels), nested(levels, "{\"k\":", "}"));
        }
    }

    void run(CThreadLite& /*thread*/) {
        for (const int levels : kLevels) {
            load("a", levels);
            load("o", levels);
        }
        mDone = true;
    }

    std::atomic<int> mDeepest{0};
    std::atomic<bool> mDone{false};

private:
    static constexpr int kLevels[] = {8, 9, 10, 11, 12, 13, 14, 15, 16, 20, 40, 999, 100000};

    void load(const char* kind, int levels) {
        Json::Value value;
        const std::string file = mDirectory / (kind + std::to_string(levels));
        if (loader().loadConfig(file.c_str(), value)) {
            mDeepest = levels;
        }
    }

    const TempDirectory& mDirectory;
};

TEST_F(ConfigLoaderTest, DepthEndsBeforeTheStackDoes) {
    SmallStack small(mDirectory);
    CThreadLite thread({&small, &SmallStack::run}, "small", 64, 0, 16384);
    ASSERT_TRUE(thread.createThread());
    ASSERT_TRUE(OrbelTest::waitFor([&] { return small.mDone.load(); }));
    EXPECT_GE(small.mDeepest, 8);
    EXPECT_LT(small.mDeepest, 999);

    const std::string limit = mDirectory / "a999";
    EXPECT_TRUE(loader().loadConfig(limit.c_str(), mValue)) << "no limit of ours on a usual stack";
}

TEST_F(ConfigLoaderTest, NothingIsLoadedOrSavedWithAKey) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    mDirectory.write("robot", "{\"a\":1}");
    const auto secret = [this] {
        const bool refused = !loader().setEncrypt("") && !loader().setEncrypt(nullptr);
        const bool plain = loader().loadConfig(mFile.c_str(), mValue);
        const bool set = loader().setEncrypt("k");
        const bool closed = !loader().loadConfig(mFile.c_str(), mValue) &&
                            !loader().saveConfig(mFile.c_str(), mValue) &&
                            getLastErrno() == 0x10060001;
        std::_Exit(refused && plain && set && closed ? 0 : 1);
    };
    EXPECT_EXIT(secret(), testing::ExitedWithCode(0), "");
    EXPECT_EQ(contentOf(mFile), "{\"a\":1}");
}

}  // namespace
