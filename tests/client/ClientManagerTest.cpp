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
        HelperProcess helper("ClientHelper", {"loop", name});
        std::string line;
        ASSERT_TRUE(helper.readLine(line));
        EXPECT_EQ(line, std::string("running as ") + name);
        // Again while nothing comes: the thread sanitizer holds signals back, and may keep one.
        bool answered = false;
        for (int i = 0; i < 30 && !answered; ++i) {
            kill(helper.pid(), number);
            answered = helper.readLine(line, 1000);
        }
        ASSERT_TRUE(answered) << number;
        EXPECT_EQ(line, "ended");
        EXPECT_EQ(helper.wait(), 0) << number;
    }
}

TEST(ClientManagerTest, TheFirstCheckListsTimersAndWarnsOfLateThreads) {
    HelperProcess helper("ClientHelper", {"watch", "robot"});
    std::string line;
    ASSERT_TRUE(helper.readLine(line));
    EXPECT_EQ(line, "as expected");
    EXPECT_EQ(helper.wait(), 0);
}

}  // namespace
