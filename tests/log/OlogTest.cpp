#include "Vantel/Log/Olog.h"

#include <gtest/gtest.h>

#include "tests/log/FakeLogClient.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

OrbelTest::FakeLogClient* client = nullptr;

void onCrash(int, void*, ...) {}

class OlogTest : public testing::Test {
protected:
    OlogTest() { client = &mClient; }

    OrbelTest::FakeLogClient mClient;
};

}  // namespace

Vantel::Log::ILogClient* Vantel::Log::ILogClient::instance() {
    return client;
}

namespace {

TEST_F(OlogTest, InitTellsWhatWentWrong) {
    CaptureStdout();
    EXPECT_EQ(ologInit(nullptr, 3), -1);
    EXPECT_EQ(GetCapturedStdout(), "appName can not osNullptr\n");
    EXPECT_TRUE(mClient.configs.empty());

    CaptureStdout();
    EXPECT_EQ(ologInit("app", 5), -1);
    EXPECT_EQ(GetCapturedStdout(), "logger client initial failed\n");

    mClient.initWorks = true;
    CaptureStdout();
    EXPECT_EQ(ologInit("app", 5), 0);
    EXPECT_EQ(GetCapturedStdout(), "");
    ASSERT_EQ(mClient.configs.size(), 2u);
    EXPECT_EQ(mClient.configs[1]["moduleName"], "app");
    EXPECT_EQ(mClient.configs[1]["logLevel"], 5);
    EXPECT_EQ(ologDeinit(), 0);
}

TEST_F(OlogTest, LevelsAreTheClientsOwn) {
    EXPECT_EQ(ologSetLogLevel(2), 0);
    EXPECT_EQ(mClient.level, 2);
    EXPECT_EQ(ologGetLogLevel(), 2);
    EXPECT_EQ(ologFlush(), -1);
    mClient.initWorks = true;
    EXPECT_EQ(ologFlush(), 0);
    EXPECT_EQ(ologSetGcoreCallback(&onCrash, nullptr), 0);
    EXPECT_EQ(mClient.crash, &onCrash);
}

TEST_F(OlogTest, PrintCutsAndSaysSoOneByteLate) {
    const struct {
        size_t length;
        size_t kept;
        const char* message;
    } cases[] = {
        {0, 0, ""},
        {8191, 8191, ""},
        {8192, 8191, ""},
        {8193, 8191, "ologPrint limit 8192 byte\n"},
    };
    for (const auto& c : cases) {
        CaptureStdout();
        EXPECT_EQ(ologPrint(4, "%s", std::string(c.length, 'x').c_str()), 77);
        EXPECT_EQ(GetCapturedStdout(), c.message) << c.length;
        EXPECT_EQ(mClient.prints.back(), std::make_pair(4, std::string(c.kept, 'x')));
    }
    EXPECT_EQ(ologPrint(4, "%s", "%d%n"), 77) << "the text is no format";
    EXPECT_EQ(mClient.prints.back().second, "%d%n");
}

}  // namespace
