#include "tests/client/RobotPair.h"

TEST(RobotLong, TwoRobotsRunForAMinuteAndLeaveNothingThatIsNotListed) {
    OrbelTest::RobotPair().run(60);
}
