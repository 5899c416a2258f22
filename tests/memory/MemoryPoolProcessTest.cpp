// What the pool reads once a process, and how it ends one.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/HelperProcess.h"

namespace {

/// Sets a variable for the processes started while it lives; this one has read its own already.
class Environment {
public:
    Environment(const char* name, const char* value) : mName(name) {
        if (mName != nullptr) {
            setenv(mName, value, 1);
        }
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() {
        if (mName != nullptr) {
            unsetenv(mName);
        }
    }

private:
    const char* mName;
};

TEST(MemoryPoolProcess, EnvironmentAndEnd) {
    const char* const kDebug = "VANTELOS_MEMORY_DEBUG";
    const struct {
        const char* role;
        const char* variable;
        const char* value;
        std::vector<std::string> lines;  // the last one may only begin so
        bool survives;
    } cases[] = {
        {"limit", "MEMORY_PAGE_LIMITED", "1", {"1 1 0 0", "0"}, true},
        {"limit", "MEMORY_PAGE_LIMITED", "0", {"1 1 1 1", "1"}, true},
        {"largeLimit", "MEMORY_PAGE_LIMITED", "1", {"1 0", "1"}, true},
        {"largeLimit", "MEMORY_PAGE_LIMITED", "129", {"1 1", "1"}, true},
        {"threshold", nullptr, "", {"256"}, true},
        {"threshold", "MEMORY_PAGE_FREE_THRESHOLD", "0", {"0"}, true},
        {"threshold", "MEMORY_PAGE_FREE_THRESHOLD", "600", {"512"}, true},
        {"debugGood", kDebug, "", {"1111111 1 1"}, true},
        {"left", kDebug, "1", {"written", "[ThreadMemoryDebugPool:"}, false},
        {"right", kDebug, "1", {"written", "[ThreadMemoryDebugPool:"}, false},
        {"rightResize", kDebug, "1", {"written", "[ThreadMemoryDebugPool:"}, false},
        {"behindGuard", kDebug, "1", {"written"}, true},
        {"wild", nullptr, "", {"[ThreadMemoryPool:"}, false},
        {"wildResize", nullptr, "", {"[ThreadMemoryPool:"}, false},
        {"exitBusy", nullptr, "", {}, true},
        {"exitQuiet", nullptr, "", {}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.role) + " " + c.value);
        Environment environment(c.variable, c.value);
        OrbelTest::HelperProcess helper("MemoryPoolHelper", {c.role});
        std::string line;
        for (const std::string& expected : c.lines) {
            ASSERT_TRUE(helper.readLine(line)) << "no line " << expected;
            EXPECT_EQ(line.substr(0, expected.size()), expected);
        }
        const int status = helper.wait();
        EXPECT_EQ(WIFEXITED(status) && WEXITSTATUS(status) == 0, c.survives) << status;
        const std::string role = c.role;
        const char* text = role == "left"              ? "]Memory left overrun"
                           : role.starts_with("right") ? "]Memory right overrun"
                           : role.starts_with("wild")  ? "]invalid object address 0x"
                                                       : "";
        EXPECT_NE(line.find(text), std::string::npos) << line;
    }
}

}  // namespace
