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

TEST(InitializeTest, AWrongTypeEndsTheProgramBeforeAnythingIsDone) {
    const struct {
        const char* config;
        const char* what;
    } cases[] = {
        {R"({"timerPoolSize": "4"})", "timer pool size"},
        {R"({"timerPoolSize": 4.5, "fileIOBuffer": "1"})", "timer pool size"},
        {R"({"timerPoolSize": 1, "fileIOBuffer": 5000000000})", "file io buffer"},
        {R"({"realtime": true})", "real time"},
    };
    for (const auto& c : cases) {
        EXPECT_DEATH(initialize(json(c.config)),
                     std::string(c.what) + " params type error\n.*Assertion")
            << c.config;
    }
}

TEST(InitializeTest, MissingKeysLeaveTheDefaultsAndPresentOnesApply) {
    OrbelTest::LogCapture log;
    signal(SIGPIPE, SIG_DFL);
    for (const char* keyless :
         {"{}", "[1]", R"({"realtime": {}})", R"({"realtime": {"enable": false}})",
          R"({"realtime": {"enable": "yes"}})"}) {
        EXPECT_TRUE(initialize(json(keyless))) << keyless;
    }
    for (const Json::Value& keyless : {Json::Value(), Json::Value(4), Json::Value("text")}) {
        EXPECT_TRUE(initialize(keyless)) << keyless;
    }
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_IGN);
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
    EXPECT_TRUE(refused.waitForLine("result 0 locked 0 pipe 0 buffer 16384"));
    HelperProcess locked("InitializeHelper", {"locked"});
    ASSERT_TRUE(locked.readLine(line));
    if (line.rfind("result 0", 0) == 0) {
        GTEST_SKIP() << "no right to lock memory here";
    }
    EXPECT_EQ(line, "result 1 locked 1 pipe 1 buffer 2048");
}
#endif

TEST(LoadTimeTest, AProcessThatOnlyLinksRunsNoThreadAndExits) {
    HelperProcess helper("LoadOrderSharedHelper");
    EXPECT_TRUE(helper.waitForLine("threads 1"));
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
        // The log client says it where a server comes or goes; a pooled thread may be in no pool.
        const std::string word = line.substr(0, line.find(' '));
        if ((word == "commit" || word == "timer" || word == "leave") && line != "leave [Pooled]") {
            lines.push_back(line);
        }
    }
    EXPECT_EQ(helper.wait(), 0);
    OrbelTest::IpcCleanup::removeChannel(domain);
    EXPECT_EQ(lines, (std::vector<std::string>{"commit 1", "timer 1", "leave TimerManager",
                                               "leave " + domain + "Thread"}));
}

}  // namespace
