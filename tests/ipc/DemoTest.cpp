#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "tests/support/HelperProcess.h"

namespace {

/// The whole main job with real processes; the program checks every byte and every block itself.
TEST(Demo, StreamsAFileAndGetsEveryBlockBack) {
    char self[PATH_MAX] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    OrbelTest::HelperProcess demo("../tools/demo", {self});
    std::string line;
    std::string output;
    while (demo.readLine(line, 120000)) {
        output += line + "\n";
    }
    const int status = demo.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
    EXPECT_NE(output.find("both copies equal "), std::string::npos) << output;
}

}  // namespace
