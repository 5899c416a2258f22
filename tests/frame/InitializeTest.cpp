#include "Vantel/Orbel/Initialize.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Vantel/Orbel/CTimerManager.h"
#include "Vantel/Orbel/IFileCache.h"
#include "file/FileDefaultOpt.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestName.h"

using namespace Vantel::Orbel;
using OrbelTest::HelperProcess;

namespace {

Json::Value json(const std::string& text) {
    Json::Value value;
    Json::Reader().parse(text, value);
    return value;
}

bool ignoresBrokenPipes() {
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

TEST(InitializeTest, AWrongTypeEndsTheProgramBeforeAnythingIsDone) {
    const struct {
        const char* config;
        const char* message;
    } cases[] = {
        {R"({"timerPoolSize": "4"})", "timer pool size params type error\n"},
        {R"({"timerPoolSize": 4.5, "fileIOBuffer": "1"})", "timer pool size params type error\n"},
        {R"({"timerPoolSize": 1, "fileIOBuffer": 5000000000})",
         "file io buffer params type error\n"},
        {R"({"realtime": true})", "real time params type error\n"},
    };
    for (const auto& c : cases) {
        EXPECT_DEATH(initialize(json(c.config)), std::string(c.message) + ".*Assertion")
            << c.config;
    }
}

TEST(InitializeTest, MissingKeysLeaveTheDefaultsAndPresentOnesApply) {
    OrbelTest::LogCapture log;
    signal(SIGPIPE, SIG_DFL);
    EXPECT_TRUE(initialize(json("{}")));
    EXPECT_TRUE(ignoresBrokenPipes());
    std::vector<Json::Value> keyless{Json::nullValue, 4, "text", json("[1]"), true};
    keyless.push_back(json(R"({"realtime": {}})"));
    keyless.push_back(json(R"({"realtime": {"enable": false}})"));
    keyless.push_back(json(R"({"realtime": {"enable": "yes"}})"));
    for (const Json::Value& config : keyless) {
        EXPECT_TRUE(initialize(config)) << config;
    }
    CTimerManager::instance()->printTimers();
    EXPECT_FALSE(log.has("Timers:"));
    EXPECT_EQ(FileDefaultOpt::instance()->fileBuffer(), 16384);

    const std::string path = "/tmp/" + OrbelTest::uniqueName("orbel_initialize");
    Json::Value config = json(R"({"timerPoolSize": 4, "fileIOBuffer": 2048})");
    config["fileCache"]["count"] = 2;
    config["fileCache"]["path"] = path;
    EXPECT_TRUE(initialize(config));
    CTimerManager::instance()->printTimers();
    EXPECT_TRUE(log.has("Timers:"));
    EXPECT_EQ(FileDefaultOpt::instance()->fileBuffer(), 2048);
    EXPECT_EQ(IFileCache::instance()->getCachePath(), path);
    std::filesystem::remove_all(path);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which lock no memory
TEST(InitializeTest, MemoryIsLockedOrNothingElseHappens) {
    std::string line;
    HelperProcess refused("InitializeHelper", {"refused"});
    ASSERT_TRUE(refused.readLine(line));
    EXPECT_EQ(line, "result 0 locked 0 pipe 0 buffer 16384");
    EXPECT_EQ(refused.wait(), 0);
    HelperProcess locked("InitializeHelper", {"locked"});
    ASSERT_TRUE(locked.readLine(line));
    EXPECT_EQ(locked.wait(), 0);
    if (line.rfind("result 0", 0) == 0) {
        GTEST_SKIP() << "no right to lock memory here";
    }
    EXPECT_EQ(line, "result 1 locked 1 pipe 1 buffer 2048");
}
#endif

TEST(LoadTimeTest, AProcessThatOnlyLinksRunsNoThreadAndExits) {
    HelperProcess helper("LoadOrderSharedHelper");
    std::string line;
    ASSERT_TRUE(helper.readLine(line));
    EXPECT_EQ(line, "threads 1");
    EXPECT_EQ(helper.wait(), 0);
}

TEST(LoadTimeTest, TimersAndDomainsOutliveTheObjectsOfTheApplicationInThisOrder) {
    OrbelTest::IpcCleanup cleanup;
    const std::string domain = cleanup.domain("load_order");
    HelperProcess helper("LoadOrderSharedHelper", {domain});
    OrbelTest::IpcCleanup::removeMutex(domain);
    ASSERT_TRUE(helper.waitForLine("main"));
    std::vector<std::string> lines;
    for (std::string line; helper.readLine(line);) {
        if (line.find("[Pooled]") == std::string::npos) {  // may be in no pool just now
            lines.push_back(line.substr(0, line.find(", id")));
        }
    }
    EXPECT_EQ(helper.wait(), 0);
    OrbelTest::IpcCleanup::removeChannel(domain);
    const std::string leave = "ThreadBody leave name = ";
    EXPECT_EQ(lines, (std::vector<std::string>{"commit 1", "timer 1", leave + "TimerManager",
                                               leave + domain + "Thread"}));
}

}  // namespace
