#include "tests/client/RobotPair.h"

TEST(RobotExample, TwoRobotsSeeEachOtherAndLeaveInGoodOrder) {
    OrbelTest::RobotPair().run(3);
}
