#include <gtest/gtest.h>

#include <string>

#include "tests/ipc/RingSupport.h"
#include "tests/support/HelperProcess.h"

using OrbelTest::HelperProcess;

namespace {

TEST(PoseExample, OneReaderGetsTheLatestPoseTheOtherEveryRecord) {
    OrbelTest::ShmCleanup cleanup;
    const std::string name = cleanup.name("pose");
    HelperProcess sensor("../examples/pose_sensor", {name, "300"});
    ASSERT_TRUE(sensor.waitForLine("publishing (Enter: go, Enter again: end)"));
    HelperProcess records("../examples/record_reader", {name});
    ASSERT_TRUE(records.waitForLine("listening"));
    HelperProcess poses("../examples/pose_reader", {name, "1000"});
    ASSERT_TRUE(poses.waitForLine("looking"));
    sensor.writeLine("go");

    std::string line;
    for (int number = 1; number <= 300; ++number) {
        ASSERT_TRUE(records.readLine(line));
        ASSERT_EQ(line.rfind("pose " + std::to_string(number) + " at ", 0), 0u) << line;
    }
    EXPECT_EQ(records.wait(), 0) << "did not see the end";

    int last = 0;
    while (last < 300) {  // the last one stays there to be seen
        ASSERT_TRUE(poses.readLine(line));
        const int number = atoi(line.c_str() + 5);
        EXPECT_GT(number, last) << "twice, or older";
        last = number;
    }
    sensor.writeLine("end");
    EXPECT_EQ(sensor.wait(), 0);
    EXPECT_EQ(poses.wait(), 0) << "did not see the sensor go";
}

}  // namespace
