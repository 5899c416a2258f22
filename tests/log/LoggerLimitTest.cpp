#include "Vantel/LoggerLimit.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "Vantel/Orbel/CTime.h"
#include "tests/support/LogCapture.h"

using Vantel::ILogger;
using Vantel::LoggerLimit;
using Vantel::Orbel::CTime;

namespace {

LoggerLimit& limit = LoggerLimit::instance();

TEST(LoggerLimit, RulesAnswerBySite) {
    const struct {
        const char* why;
        bool (*ask)(const char* file, uint32_t line);
        std::string answers;
    } cases[] = {
        {"no interval", [](auto f, auto l) { return limit.checkRateLimit(f, l, 0); }, "yyyy"},
        {"first two", [](auto f, auto l) { return limit.checkCountLimit(f, l, 2); }, "yynnn"},
        {"none", [](auto f, auto l) { return limit.checkCountLimit(f, l, 0); }, "nnn"},
        {"every third", [](auto f, auto l) { return limit.checkEveryLimit(f, l, 3); }, "nnynnyn"},
        {"every", [](auto f, auto l) { return limit.checkEveryLimit(f, l, 1); }, "yyy"},
        {"every, by 0", [](auto f, auto l) { return limit.checkEveryLimit(f, l, 0); }, "yyy"},
        {"after two", [](auto f, auto l) { return limit.checkAfterLimit(f, l, 2); }, "nnyyy"},
        {"after none", [](auto f, auto l) { return limit.checkAfterLimit(f, l, 0); }, "yyy"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        // The sites are asked in turn: none may count for another.
        const std::pair<const char*, uint32_t> sites[] = {
            {"a.cpp", 1}, {"a.cpp", 2}, {"b.cpp", 1}, {"", 1}};
        limit.resetAll();
        for (const char answer : c.answers) {
            for (const auto& [file, line] : sites) {
                EXPECT_EQ(c.ask(file, line) ? 'y' : 'n', answer) << file << line;
            }
        }
    }
    EXPECT_FALSE(limit.checkCountLimit(nullptr, 1, 0)) << "null is the empty name";
}

TEST(LoggerLimit, RulesOfOneSiteCountApartAndWrapAt16Bits) {
    limit.resetAll();
    EXPECT_TRUE(limit.checkCountLimit("f", 1, 1));
    EXPECT_FALSE(limit.checkEveryLimit("f", 1, 2));
    EXPECT_FALSE(limit.checkAfterLimit("f", 1, 1));
    EXPECT_TRUE(limit.checkEveryLimit("f", 1, 2));
    EXPECT_FALSE(limit.checkCountLimit("f", 1, 1));
    for (int i = 2; i < 65536; ++i) {
        ASSERT_TRUE(limit.checkAfterLimit("f", 1, 1)) << i;
    }
    EXPECT_FALSE(limit.checkAfterLimit("f", 1, 1)) << "the 65536th is number 0";
    EXPECT_FALSE(limit.checkAfterLimit("f", 1, 1));
    EXPECT_TRUE(limit.checkAfterLimit("f", 1, 1));
}

TEST(LoggerLimit, OneLineAnIntervalAfterTheFirst) {
    limit.resetAll();
    uint32_t passed = 0;
    for (uint32_t line = 0; line < 1000; ++line) {
        passed += limit.checkRateLimit("f", line, 60000) ? 1 : 0;
    }
    EXPECT_LT(passed, 100u) << "only where a millisecond ends between two readings of the clock";

    uint64_t last = CTime::getCurrentMilliSecond();
    limit.reset("f", 1);
    limit.checkRateLimit("f", 1, 50);  // starts the clock
    for (int lines = 0; lines < 3;) {
        const uint64_t before = CTime::getCurrentMilliSecond();
        if (limit.checkRateLimit("f", 1, 50)) {
            // From before one line to behind the next: a slow machine makes it longer.
            EXPECT_GE(CTime::getCurrentMilliSecond() - last, 50u);
            last = before;
            ++lines;
        }
    }
}

TEST(LoggerLimit, ForgetsByThreadByAgeAndAll) {
    limit.resetAll();
    const auto first = [] { return limit.checkCountLimit("f", 1, 1); };
    EXPECT_TRUE(first());
    std::thread([&] {
        EXPECT_TRUE(first()) << "another thread has a record of its own";
        EXPECT_FALSE(first());
        limit.reset("f", 1);
        EXPECT_TRUE(first());
    }).join();
    EXPECT_FALSE(first()) << "reset() of another thread reached this one";

    limit.cleanup(60000);
    EXPECT_FALSE(first()) << "not that old";
    const uint64_t start = CTime::getCurrentMilliSecond();
    while (CTime::getCurrentMilliSecond() < start + 2) {
        EXPECT_FALSE(first()) << "use does not keep it young";
    }
    limit.cleanup(0);
    EXPECT_TRUE(first());
    limit.resetAll();
    EXPECT_TRUE(first());
}

TEST(LoggerLimit, MacrosLogWhatIsLetOutAndEvaluateNothingElse) {
    const OrbelTest::LogCapture log;
    int evaluated = 0;
    for (int i = 0; i < 7; ++i) {
        ORBEL_LOG_LIMIT_EVERY(3, ILogger::kWarn, "Limit", "every %d\n", ++evaluated);
        ORBEL_LOG_LIMIT_COUNT(2, ILogger::kInfo, "Limit", "count\n");
        ORBEL_LOG_LIMIT_AFTER(6, ILogger::kError, nullptr, "after %d\n", i);
        ORBEL_LOG_LIMIT_RATE(60000, ILogger::kFatal, "Limit", "rate\n");
        if (i < 0)
            ORBEL_LOG_LIMIT_RATE(0, ILogger::kInfo, "Limit", "a single statement\n");
        else
            ORBEL_LOG_LIMIT_RATE(0, ILogger::kInfo, "Limit", "always\n");
    }
    EXPECT_EQ(evaluated, 2);
    EXPECT_TRUE(log.has("[warn]") && log.has("[Limit]every 2\n"));
    EXPECT_EQ(log.count("count\n"), 2);
    EXPECT_EQ(log.count("after"), 1);
    EXPECT_TRUE(log.has("]after 6\n"));
    EXPECT_EQ(log.count("rate\n"), 0);
    EXPECT_EQ(log.count("always\n"), 7);
}

}  // namespace
