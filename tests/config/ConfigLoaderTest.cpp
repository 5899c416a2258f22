#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <atomic>
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
public:
    bool load(const std::string& name) {
        return loader().loadConfig((mDirectory / name).c_str(), mValue);
    }

    // The deepest documents there are, loaded in a thread with the least of stacks.
    static constexpr int kLevels[] = {8, 9, 10, 11, 12, 13, 14, 15, 16, 20, 40, 999, 100000};
    void loadDeeperAndDeeper(CThreadLite& /*thread*/) {
        for (const int levels : kLevels) {
            for (const char* kind : {"array", "object"}) {
                mDeepest = load(kind + std::to_string(levels)) ? levels : mDeepest;
                mValue = Json::Value();
            }
        }
        mDone = true;
    }

    TempDirectory mDirectory;
    std::string mFile = mDirectory / "robot";
    Json::Value mValue = "old";
    int mDeepest = 0;
    std::atomic<bool> mDone{false};
};

TEST_F(ConfigLoaderTest, WhatIsNoDocumentGivesNull) {
    EXPECT_FALSE(load("robot") || loader().loadConfig(nullptr, mValue));
    EXPECT_EQ(mValue, "old") << "no file, no change";

    const std::string cases[] = {"",
                                 "5",
                                 R"({"a":1,})",
                                 "[\"half \xe4\xb8\"]",
                                 "{\"overlong\":\"\xc0\xaf\"}",
                                 "{\"surrogate\":\"\xed\xa0\x80\"}",
                                 "{\"latin\":\"M\xfcller\"}",
                                 "{\"outside\":\"\xf4\x90\x80\x80\"}",
                                 nested(100000, "[", "]"),
                                 nested(100000, "{\"k\":", ""),
                                 std::string(100, '\0')};
    for (const std::string& text : cases) {
        SCOPED_TRACE(text.substr(0, 40));
        mDirectory.write("robot", text);
        mValue = "old";
        EXPECT_FALSE(load("robot"));
        EXPECT_TRUE(mValue.isNull());
        EXPECT_EQ(contentOf(mFile), text);
    }
    EXPECT_FALSE(load(".")) << "a directory";
    mDirectory.write("huge", "[1]");
    ASSERT_EQ(truncate((mDirectory / "huge").c_str(), (1LL << 32) + 3), 0);
    EXPECT_FALSE(load("huge")) << "a length of 3 in 32 bits";
}

TEST_F(ConfigLoaderTest, ADocumentComesBackAsItWasSaved) {
    const Json::Value saved = json(
        R"({"n":-1,"big":18446744073709551615,"t":"\u4e2d\ud83d\ude00\"\u0000","a":[{}, 0.1]})");
    mDirectory.write("robot", std::string(10000, 'x'));  // longer than what comes
    ASSERT_TRUE(loader().saveConfig(mFile.c_str(), saved));
    ASSERT_TRUE(load("robot"));
    EXPECT_EQ(mValue, saved);
    mDirectory.write("robot", "{\"utf\":\"\u4e2d\U0001F600\"} trailing");
    ASSERT_TRUE(load("robot"));
    EXPECT_EQ(mValue["utf"], "\u4e2d\U0001F600");

    ASSERT_TRUE(loader().saveConfig(mFile.c_str(), Json::Value()));
    EXPECT_EQ(contentOf(mFile), "null\n");
    EXPECT_FALSE(load("robot")) << "written, but no document";
}

TEST_F(ConfigLoaderTest, SavingSaysWhyItFailed) {
    const auto errorOf = [](const char* path) {
        getLastErrno();
        EXPECT_FALSE(loader().saveConfig(path, std::string(100000, 'x')));
        return getLastErrno();
    };
    EXPECT_EQ(errorOf(nullptr), 0x10060002);
    EXPECT_EQ(errorOf(""), 0x10060002);
    EXPECT_EQ(errorOf((mDirectory / "no/such/directory").c_str()), 0x10060001);
    {
        const OrbelTest::FullDisk full(10);
        EXPECT_EQ(errorOf(mFile.c_str()), 0x10060001);
    }
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

TEST_F(ConfigLoaderTest, DepthEndsBeforeTheStackDoes) {
    for (const int levels : kLevels) {
        mDirectory.write("array" + std::to_string(levels), nested(levels, "[", "]"));
        mDirectory.write("object" + std::to_string(levels), nested(levels, "{\"k\":", "}"));
    }
    CThreadLite thread({this, &ConfigLoaderTest::loadDeeperAndDeeper}, "small", 64, 0, 16384);
    ASSERT_TRUE(thread.createThread());
    ASSERT_TRUE(OrbelTest::waitFor([&] { return mDone.load(); }));
    EXPECT_GE(mDeepest, 8);
    EXPECT_LT(mDeepest, 999);
    EXPECT_TRUE(load("array999")) << "no limit of ours on a usual stack";
}

TEST_F(ConfigLoaderTest, NothingIsLoadedOrSavedWithAKey) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    mDirectory.write("robot", "{\"a\":1}");
    const auto secret = [this] {
        const bool refused = !loader().setEncrypt("") && !loader().setEncrypt(nullptr);
        const bool plain = load("robot");
        const bool set = loader().setEncrypt("k");
        const bool closed = !load("robot") && !loader().saveConfig(mFile.c_str(), mValue) &&
                            getLastErrno() == 0x10060001;
        std::_Exit(refused && plain && set && closed ? 0 : 1);
    };
    EXPECT_EXIT(secret(), testing::ExitedWithCode(0), "");
    EXPECT_EQ(contentOf(mFile), "{\"a\":1}");
}

}  // namespace
