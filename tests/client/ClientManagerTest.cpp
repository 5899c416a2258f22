#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <utility>

#include "tests/support/HelperProcess.h"

using OrbelTest::HelperProcess;

namespace {

TEST(ClientManagerTest, EachOfTheSignalsEndsTheMainLoopForGood) {
    const std::pair<int, const char*> cases[] = {
        {SIGINT, "robot"}, {SIGTERM, "robot"}, {SIGTSTP, "app"}};
    for (const auto& [number, name] : cases) {
        SCOPED_TRACE(number);
        HelperProcess helper("ClientHelper", {"loop", name});
        ASSERT_TRUE(helper.waitForLine(std::string("running as ") + name));
        // Again while nothing comes: the thread sanitizer holds signals back, and may keep one.
        std::string line;
        for (int i = 0; i < 30 && line.empty(); ++i) {
            kill(helper.pid(), number);
            helper.readLine(line, 1000);
        }
        EXPECT_EQ(line, "ended");
        EXPECT_EQ(helper.wait(), 0);
    }
}

TEST(ClientManagerTest, TheFirstCheckListsTimersAndWarnsOfLateThreads) {
    HelperProcess helper("ClientHelper", {"watch", "robot"});
    EXPECT_TRUE(helper.waitForLine("lists 1 warnings 1 names 1"));
    EXPECT_EQ(helper.wait(), 0);
}

}  // namespace
