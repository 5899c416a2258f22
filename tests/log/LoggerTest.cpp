#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <thread>

#include "Vantel/Orbel/BuildIdentity.h"
#include "log/LoggerImpl.h"
#include "tests/log/FakeLogClient.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using testing::internal::RE;
using Vantel::ILogger;
using Vantel::LoggerImpl;

namespace {

constexpr size_t kRoom = 4052;  // what the client's header leaves of the longest line

/// A logger of its own for each test; what the process has only one of stays unused.
class LoggerTest : public testing::Test {
protected:
    LoggerTest() { mLogger.attach(mSink); }

    void start(int32_t bufferSize = 100000) {
        ASSERT_TRUE(mLogger.init("robotd", bufferSize));
        mLines.clear();
        mClient.lines.clear();
        mClient.flushes = 0;
    }

    int32_t log(int level, const std::string& text) {
        return mLogger.print(static_cast<ILogger::LoggerLevel>(level), "T", "%s", text.c_str());
    }

    std::string lastLine() const { return mLines.empty() ? "" : mLines.back(); }

    OrbelTest::FakeLogClient mClient;
    LoggerImpl mLogger{mClient};
    std::vector<std::string> mLines;
    const ILogger::LineDelegate mSink{this, &LoggerTest::onLine};

private:
    void onLine(ILogger::LoggerLevel, const char* line, int length) {
        EXPECT_EQ(strlen(line), static_cast<size_t>(length));
        mLines.emplace_back(line);
    }
};

TEST_F(LoggerTest, SwallowsEverythingBeforeInit) {
    CaptureStderr();
    EXPECT_EQ(log(5, "x\n"), 0);
    EXPECT_FALSE(mLogger.setLevel(3));
    EXPECT_FALSE(mLogger.init(nullptr, 100));
    EXPECT_FALSE(mLogger.init("", 100));
    EXPECT_FALSE(mLogger.init("x", 0));
    EXPECT_FALSE(mLogger.init("x", -1));
    const std::string module = "\033[31msetConfig logger module invalid\n\033[0m";
    const std::string size = "\033[31msetConfig logger buffer size <= 0\n\033[0m";
    EXPECT_EQ(GetCapturedStderr(), module + module + size + size);
    EXPECT_TRUE(mLines.empty());
    EXPECT_TRUE(mClient.configs.empty());
}

TEST_F(LoggerTest, InitOpensTheLogWithTheBuild) {
    ASSERT_TRUE(mLogger.init("robotd", 100000));
    ASSERT_EQ(mClient.configs.size(), 1u);
    EXPECT_EQ(mClient.configs[0]["moduleName"], "robotd");
    EXPECT_EQ(mClient.configs[0]["logLevel"], 1);
    ASSERT_EQ(mClient.prints.size(), 1u);
    EXPECT_EQ(mClient.prints[0].first, 3);
    EXPECT_EQ(mClient.prints[0].second, "Set Process robotd Logger Config: buffer size 4052\n");
    ASSERT_EQ(mLines.size(), 1u);
    const std::string wanted = std::string("[robotd][info][") + std::to_string(gettid()) +
                               "]Robot Version .., " + Vantel::Orbel::getBuildInfo() +
                               ", Header Commit ";
    EXPECT_NE(mLines[0].find(wanted), std::string::npos) << mLines[0];
    EXPECT_TRUE(RE::FullMatch(mLines[0], ".*Header Commit ([0-9a-f]{7}\\([0-9-]{10}\\)|unknown)\n"))
        << mLines[0];
    EXPECT_TRUE(RE::FullMatch(Vantel::Orbel::getBuildInfo(),
                              "Release Build: [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"
                              " Repo: \\*\\*\\*[^ ]+\\(([0-9a-f]{8}|unknown)\\)"))
        << Vantel::Orbel::getBuildInfo();

    EXPECT_TRUE(mLogger.init("other", 50)) << "a second time changes nothing";
    EXPECT_EQ(mClient.configs.size(), 1u);
    log(2, "x\n");
    EXPECT_NE(lastLine().find("[robotd]"), std::string::npos);
}

TEST_F(LoggerTest, LevelsHaveAWordAColorAFlushAndACounterpart) {
    start();
    mLogger.setOutput(17);
    const struct {
        int level;
        const char* word;
        const char* color;
        int flushes;
        int clientLevel;
    } cases[] = {
        {0, "[debug]", "\033[0m", 0, 2},  {1, "[tracef]", "\033[0m", 0, 1},
        {2, "[info]", "\033[32m", 0, 3},  {3, "[warn]", "\033[33m", 1, 4},
        {4, "[error]", "\033[31m", 1, 5}, {5, "[fatal]", "\033[31m", 1, 6},
        {6, "", "\033[0m", 0, 2},         {-1, "", "\033[0m", 0, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.level);
        EXPECT_TRUE(mLogger.setLevel(c.level));
        EXPECT_EQ(mClient.level, c.clientLevel);
        mClient.flushes = 0;
        CaptureStderr();
        EXPECT_EQ(log(c.level - 1, "below\n"), 0);
        const int32_t length = log(c.level, "text\n");
        const std::string console = GetCapturedStderr();
        ASSERT_EQ(static_cast<size_t>(length), lastLine().size());
        EXPECT_EQ(lastLine().substr(25),
                  std::string("[robotd]") + c.word + "[" + std::to_string(gettid()) + "][T]text\n");
        EXPECT_EQ(console, c.color + lastLine() + "\033[0m");
        EXPECT_EQ(mClient.lines.back(), lastLine());
        EXPECT_EQ(mClient.flushes, c.flushes);
    }
    EXPECT_EQ(mLines.size(), std::size(cases));
    EXPECT_TRUE(
        RE::FullMatch(lastLine().substr(0, 25),
                      "\\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\]"))
        << lastLine();
}

TEST_F(LoggerTest, SetOutputSelectsTheBuiltInSinks) {
    start();
    const struct {
        int mask;
        bool console;
        bool client;
    } cases[] = {
        {0, false, false}, {1, true, false}, {16, false, true}, {-1, true, true}, {2, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mask);
        mLines.clear();
        mClient.lines.clear();
        EXPECT_TRUE(mLogger.setOutput(c.mask));
        CaptureStderr();
        log(2, "x\n");
        EXPECT_EQ(!GetCapturedStderr().empty(), c.console);
        EXPECT_EQ(mClient.lines.size(), c.client ? 1u : 0u);
        EXPECT_EQ(mLines.size(), 1u) << "delegates get every line";
    }
    EXPECT_TRUE(mLogger.detach(mSink));
    log(2, "x\n");
    EXPECT_EQ(mLines.size(), 1u);
}

TEST_F(LoggerTest, EmptyMessagesAreRefused) {
    start();
    EXPECT_EQ(log(5, ""), -1);
    EXPECT_EQ(mLogger.print(ILogger::kFatal, "T", nullptr), -1);
    EXPECT_EQ(mLogger.print(ILogger::kFatal, "T", "%ls", L"\x2603"), -1) << "cannot be converted";
    EXPECT_TRUE(mLines.empty());
    EXPECT_EQ(mClient.flushes, 0);
    EXPECT_GT(mLogger.print(ILogger::kFatal, nullptr, "x\n"), 0);
    EXPECT_EQ(lastLine().find("[T]"), std::string::npos);
}

TEST_F(LoggerTest, ALineThatDoesNotFitIsCutBehindANewline) {
    start();
    log(2, "x");
    const size_t head = lastLine().size() - 1;
    for (const size_t message : {kRoom - 1 - head, kRoom - head, size_t{5000}}) {
        SCOPED_TRACE(message);
        EXPECT_EQ(log(2, std::string(message, 'x')), static_cast<int32_t>(kRoom - 1));
        ASSERT_EQ(lastLine().size(), kRoom - 1);
        EXPECT_EQ(lastLine().substr(kRoom - 3), head + message < kRoom ? "xx" : "x\n");
    }
}

/// Every room from none at all to more than the head needs: no byte outside, and a newline last.
TEST(LoggerRoom, SmallBuffersAndLongHeadsStayInside) {
    const std::string tag(5000, 't');
    for (int32_t size = 1; size < 180; ++size) {
        SCOPED_TRACE(size);
        OrbelTest::FakeLogClient client;
        LoggerImpl logger(client);
        ASSERT_TRUE(logger.init("robotd", size));
        client.lines.clear();
        const int32_t length = logger.print(ILogger::kInfo, tag.c_str(), "%s\n", tag.c_str());
        EXPECT_EQ(length, size < 46 ? -1 : size - 44 - 1);
        ASSERT_EQ(client.lines.size(), size < 46 ? 0u : 1u);
        if (length > 0) {
            EXPECT_EQ(client.lines[0].back(), '\n');
            EXPECT_EQ(client.lines[0].find('\0'), std::string::npos);
        }
    }
}

TEST_F(LoggerTest, DumpHexRows) {
    start();
    mLogger.setLevel(2);
    const char data[] = "0123456789abcdez{~ \n";
    EXPECT_EQ(mLogger.dumpHex(data, 20), 0);
    ASSERT_EQ(mLines.size(), 2u);
    char address[32];
    snprintf(address, sizeof address, "%p", static_cast<const void*>(data));
    const std::string first(
        ".*\\[info\\]\\[[0-9]+\\]\\[Orbel\\]\\[LoggerImpl:[0-9]+\\] " + std::string(address) +
        ": 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 7a   0123456789abcdez \n");
    EXPECT_TRUE(RE::FullMatch(mLines[0], first)) << mLines[0];
    const std::string second = ": 7b 7e 20 0a " + std::string(36, ' ') + "  .. . \n";
    EXPECT_EQ(mLines[1].substr(mLines[1].size() - second.size()), second);

    mLines.clear();
    mLogger.dumpHex(data, 0);
    mLogger.dumpHex(data, INT_MIN);
    mLogger.dumpHex(nullptr, 5);
    EXPECT_TRUE(mLines.empty());

    // An empty line follows the rows that begin at 512 and 1024, and not the one at 0.
    const std::vector<char> large(1024 + 1, 'x');
    mLogger.dumpHex(large.data(), static_cast<int32_t>(large.size()));
    ASSERT_EQ(mLines.size(), 65u + 2u);
    for (size_t i = 0; i < mLines.size(); ++i) {
        const bool empty = RE::FullMatch(mLines[i], ".*\\[LoggerImpl:[0-9]+\\] \n");
        EXPECT_EQ(empty, i == 33 || i == 66) << i << mLines[i];
    }
}

TEST_F(LoggerTest, ErrnoSurvivesALine) {
    start();
    mLogger.setOutput(1);
    CaptureStderr();
    const int console = dup(STDERR_FILENO);
    close(STDERR_FILENO);  // so that the write fails
    errno = ENOENT;
    log(2, "x\n");
    const int kept = errno;
    dup2(console, STDERR_FILENO);
    close(console);
    GetCapturedStderr();
    EXPECT_EQ(kept, ENOENT);
}

TEST_F(LoggerTest, StampsAreStoredUnlessExactTimeIsAskedFor) {
    const auto differ = [this](LoggerImpl& logger) {
        mClient.lines.clear();
        logger.print(ILogger::kInfo, "T", "x\n");
        usleep(5000);
        logger.print(ILogger::kInfo, "T", "x\n");
        return mClient.lines[0].substr(0, 25) != mClient.lines[1].substr(0, 25);
    };
    start();
    // Two tries: one may fall upon a refresh.
    EXPECT_FALSE(differ(mLogger) && differ(mLogger));

    setenv("ORBEL_LOG_TIMESTAMP", "", 1);
    LoggerImpl exact(mClient);
    ASSERT_TRUE(exact.init("exact", 4096));
    unsetenv("ORBEL_LOG_TIMESTAMP");
    EXPECT_TRUE(differ(exact));
}

TEST_F(LoggerTest, ThreadsLogWhileSinksComeAndGo) {
    start();
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([this] {
            for (int line = 0; line < 300; ++line) {
                log(4, "line\n");
            }
        });
    }
    const ILogger::LineDelegate other(+[](ILogger::LoggerLevel, const char*, int) {});
    for (int i = 0; i < 300; ++i) {
        EXPECT_TRUE(mLogger.attach(other));
        mLogger.setLevel(i % 3);
        EXPECT_TRUE(mLogger.detach(other));
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mLines.size(), 900u);
    EXPECT_EQ(mClient.flushes, 900);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
/// All sinks at once, with a number that printf takes long over, on the smallest stack.
TEST_F(LoggerTest, WorksOnTheSmallestStack) {
    start();
    mLogger.setOutput(17);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 16384), 0);
    const auto body = [](void* self) -> void* {
        static_cast<LoggerImpl*>(self)->print(ILogger::kWarn, "T", "%s %ld %.3f\n", "text", 5L,
                                              2.5);
        return nullptr;
    };
    CaptureStderr();
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, body, &mLogger), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_NE(GetCapturedStderr().find("text 5 2.500\n"), std::string::npos);
}
#endif

}  // namespace
