#include "Vantel/INI/INIParser.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/file/TempDirectory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OpenDescriptors.h"

using Vantel::INI::INIParser;
using Keys = std::vector<std::string>;
using Values = std::map<std::string, std::string>;

namespace {

class INIParserTest : public testing::Test {
protected:
    OrbelTest::TempDirectory mDirectory;
    const std::string mFile = mDirectory.write(
        "robot.ini",
        "free = 1\n[Arm]\nSpeed = 2 m ; a comment\nname = \"a;b\"\nempty=\n[a:b]\nspeed=3\n[" +
            std::string(1000, 's') + "]\n" + std::string(23, 'k') + "=long\n");
};

TEST_F(INIParserTest, ValuesComeUnderTheKeysOfTheCaller) {
    const std::string longest(1000, 's');
    const struct {
        const char* why;
        Keys keys;
        const char* section;
        bool result;
        Values values;
    } cases[] = {
        {"in a section",
         {"SPEED", "name", "empty", "free", "no"},
         "arm",
         true,
         {{"SPEED", "2 m"}, {"name", "a;b"}, {"empty", ""}}},
        {"without one",
         {"arm:Speed", "free", "a:b:speed", "Arm"},
         nullptr,
         true,
         {{"arm:Speed", "2 m"}, {"free", "1"}, {"a:b:speed", "3"}}},
        {"with an empty one", {":free", "speed"}, "", true, {{":free", "1"}}},
        {"in none that is there", {"speed", "free"}, "leg", true, {}},
        {"up to an empty key", {"speed", "", "name"}, "arm", false, {{"speed", "2 m"}}},
        {"no keys", {}, "arm", false, {}},
        {"the longest key",
         {std::string(23, 'k')},
         longest.c_str(),
         true,
         {{std::string(23, 'k'), "long"}}},
        {"a longer one, which must not be cut", {std::string(24, 'k')}, longest.c_str(), true, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        Values values{{"other", "stays"}, {"name", "of before"}};
        Values expected = c.values;
        expected.insert(values.begin(), values.end());  // what the file has comes first
        EXPECT_EQ(INIParser::readINIFile(mFile.c_str(), c.keys, values, c.section), c.result);
        EXPECT_EQ(values, expected);
    }
    const std::string written = mDirectory / "new";
    EXPECT_FALSE(INIParser::writeINIFile(written.c_str(), {{"name", "value"}}, "arm"));
    EXPECT_EQ(OrbelTest::contentOf(written), "<cannot open>");
}

TEST_F(INIParserTest, FilesThatCannotBeRead) {
    const std::string paths[] = {mDirectory / "missing", mDirectory.path(),
                                 mDirectory.write("text", "[arm]\nspeed=1\nno ini file\n"),
                                 mDirectory.write("line", std::string(2000, 'x') + "=1\n")};
    OrbelTest::LogCapture log;
    const long before = OrbelTest::openDescriptors();
    Values values;
    for (const std::string& path : paths) {
        EXPECT_FALSE(INIParser::readINIFile(path.c_str(), {"speed"}, values, "arm")) << path;
        EXPECT_EQ(log.count("readr ini file(" + path + ") failed"), 1);
    }
    EXPECT_FALSE(INIParser::readINIFile(nullptr, {"speed"}, values, "arm"));
    EXPECT_FALSE(INIParser::readINIFile("", {"speed"}, values, "arm"));
    EXPECT_TRUE(values.empty());
    EXPECT_EQ(OrbelTest::openDescriptors(), before);
    EXPECT_DEATH(INIParser::create(nullptr, "arm"), "Assertion");
    EXPECT_DEATH(INIParser::create("a.ini", nullptr), "Assertion");
    EXPECT_TRUE(INIParser::create("a.ini", "")->getValue("speed").empty());
}

TEST_F(INIParserTest, ThreadsReadTheirOwnFiles) {
    std::vector<std::thread> threads;
    for (const std::string text : {"one", "two", "three"}) {
        const std::string path = mDirectory.write(text, "[arm]\nspeed=" + text + "\n");
        threads.emplace_back([=] {
            Values values;
            for (int turn = 0; turn < 300; ++turn) {
                EXPECT_TRUE(INIParser::readINIFile(path.c_str(), {"speed"}, values, "arm"));
                EXPECT_EQ(values["speed"], text);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
