#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/file/TempDirectory.h"
#include "tests/support/HelperProcess.h"

namespace {

std::vector<std::string> linesOf(const std::string& directory) {
    OrbelTest::HelperProcess example("../examples/config_document", {directory});
    std::vector<std::string> lines;
    for (std::string line; example.readLine(line);) {
        lines.push_back(line);
    }
    EXPECT_EQ(example.wait(), 0);
    return lines;
}

TEST(ConfigExample, ChangesAreThereAgainAtTheNextStart) {
    const OrbelTest::TempDirectory directory;
    std::vector<std::string> expected = {
        "start: 30 fps, exposure 10000 us",          "thread: 60 fps stored",
        "thread: 500 fps refused, error 0x10060003", "observer: operator changed speed of camera",
        "changed: 60 fps, exposure 5000 us",         "recovered: 30 fps, exposure 5000 us"};
    EXPECT_EQ(linesOf(directory.path()), expected);
    expected[0] = "start: 30 fps, exposure 5000 us";
    EXPECT_EQ(linesOf(directory.path()), expected);
}

}  // namespace
