// What the pool reads once a process, and how it ends one.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/HelperProcess.h"

namespace {

TEST(MemoryPoolProcess, EnvironmentAndEnd) {
    const char* const kLimit = "MEMORY_PAGE_LIMITED";
    const char* const kThreshold = "MEMORY_PAGE_FREE_THRESHOLD";
    const char* const kDebug = "VANTELOS_MEMORY_DEBUG";
    const struct {
        const char* role;
        const char* variable;
        const char* value;
        std::vector<std::string> lines;
        bool survives;
    } cases[] = {
        {"limit", kLimit, "1", {"1 1 0 0", "0"}, true},
        {"limit", kLimit, "0", {"1 1 1 1", "1"}, true},
        {"largeLimit", kLimit, "1", {"1 0", "1"}, true},
        {"largeLimit", kLimit, "129", {"1 1", "1"}, true},
        {"threshold", kLimit, "0", {"256"}, true},
        {"threshold", kThreshold, "0", {"0"}, true},
        {"threshold", kThreshold, "600", {"512"}, true},
        {"debugGood", kDebug, "", {"1111111 1 1"}, true},
        {"left", kDebug, "1", {"written", "]Memory left overrun"}, false},
        {"right", kDebug, "1", {"written", "]Memory right overrun"}, false},
        {"rightResize", kDebug, "1", {"written", "]Memory right overrun"}, false},
        {"behindGuard", kDebug, "1", {"written"}, true},
        {"wild", kLimit, "0", {"]invalid object address 0x"}, false},
        {"wildResize", kLimit, "0", {"]invalid object address 0x"}, false},
        {"exitBusy", kLimit, "0", {}, true},
        {"exitQuiet", kLimit, "0", {}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.role) + " " + c.value);
        setenv(c.variable, c.value, 1);  // for the helper: this process has read its own already
        OrbelTest::HelperProcess helper("MemoryPoolHelper", {c.role});
        unsetenv(c.variable);
        for (const std::string& expected : c.lines) {
            std::string line;
            ASSERT_TRUE(helper.readLine(line)) << "no line " << expected;
            const bool logged = expected[0] == ']';  // the time and the place stand in front
            EXPECT_TRUE(logged ? line.find(expected) != line.npos : line == expected) << line;
        }
        const int status = helper.wait();
        EXPECT_EQ(WIFEXITED(status) && WEXITSTATUS(status) == 0, c.survives) << status;
    }
}

}  // namespace
