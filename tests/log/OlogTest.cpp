#include "Vantel/Log/Olog.h"

#include <gtest/gtest.h>

#include "tests/log/FakeLogClient.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

OrbelTest::FakeLogClient client;

void onCrash(int, void*, ...) {}

}  // namespace

Vantel::Log::ILogClient* Vantel::Log::ILogClient::instance() {
    return &client;
}

namespace {

TEST(OlogTest, CallsTheClientAndTellsWhatWentWrong) {
    CaptureStdout();
    EXPECT_EQ(ologInit(nullptr, 3), -1);
    EXPECT_TRUE(client.configs.empty());
    EXPECT_EQ(ologInit("app", 5), -1);
    EXPECT_EQ(ologFlush(), -1);
    client.works = true;
    EXPECT_EQ(ologInit("app", 5), 0);
    EXPECT_EQ(ologFlush(), 0);
    EXPECT_EQ(GetCapturedStdout(), "appName can not osNullptr\nlogger client initial failed\n");
    EXPECT_EQ(client.configs.back()["moduleName"], "app");
    EXPECT_EQ(client.configs.back()["logLevel"], 5);

    EXPECT_EQ(ologSetLogLevel(2), 0);
    EXPECT_EQ(client.level, 2) << "its own scale";
    EXPECT_EQ(ologGetLogLevel(), 2);
    EXPECT_EQ(ologSetGcoreCallback(&onCrash, nullptr), 0);
    EXPECT_EQ(client.crash, &onCrash);
    EXPECT_EQ(ologDeinit(), 0);
}

TEST(OlogTest, PrintCutsAndSaysSoOneByteLate) {
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
        EXPECT_EQ(client.prints.back(), std::make_pair(4, std::string(c.kept, 'x')));
    }
    ologPrint(4, "%s", "%d%n");
    EXPECT_EQ(client.prints.back().second, "%d%n") << "the text is no format";
}

}  // namespace
