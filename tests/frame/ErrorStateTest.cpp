#include "Vantel/Orbel/ErrorState.h"

#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <string>
#include <thread>

#include "frame/ErrorTable.h"

using namespace Vantel::Orbel;

namespace {

TEST(LastErrnoTest, IsCollectedOnceAndByItsOwnThread) {
    for (const int error : {7, -1, INT_MIN, INT_MAX, 0x10060005}) {
        setLastErrno(error);
        std::thread([] {
            EXPECT_EQ(getLastErrno(), 0);
            setLastErrno(9);  // dies with the thread
        }).join();
        EXPECT_EQ(getLastErrno(), error);
        EXPECT_EQ(getLastErrno(), 0);
    }
    setLastErrno(1);
    setLastErrno(0);
    EXPECT_EQ(getLastErrno(), 0);
}

int decide(int error, std::string& text) {
    text += "translated";
    if (error == 3) {
        throw std::runtime_error("translator");
    }
    return error == 5 ? -1 : error - 6;
}

int keepEmpty(int, std::string&) {
    return 1;
}

TEST(ErrorTableTest, TranslatorDecidesOrItsTextIsDiscarded) {
    const struct {
        const char* why;
        int error;
        const char* message;
        const char* plain;
        const char* translated;
    } cases[] = {
        {"refused with -1", 5, "x", "x", "x"},
        {"refused, no message", 5, nullptr, "", ""},
        {"accepted with 0", 6, "x", "x", "translated"},
        {"accepted with more, no message", 7, nullptr, "", "translated"},
        {"a module's code", 0x10060000, "config", "config", "translated"},
    };
    ErrorTable plain;
    ErrorTable translated;
    EXPECT_FALSE(translated.install({}));
    EXPECT_TRUE(translated.install({&decide}));
    EXPECT_FALSE(translated.install({&keepEmpty})) << "the first one stays";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        plain.enter(c.error, c.message);
        EXPECT_STREQ(plain.message(c.error), c.plain);
        translated.enter(c.error, c.message);
        EXPECT_STREQ(translated.message(c.error), c.translated);
        EXPECT_STREQ(plain.module(c.error + 1), "") << "no operation names a module";
    }
    EXPECT_THROW(translated.enter(3, "x"), std::runtime_error);
    EXPECT_STREQ(translated.message(3), "") << "or hangs: the lock was kept";
}

TEST(ErrorTableTest, TextStaysWhereItIsUntilItsCodeIsWrittenAgain) {
    EXPECT_STREQ(getErrorMsg(100), "");
    setErrorMsg(100, "first");
    const char* text = getErrorMsg(100);
    for (int code = 101; code < 400; ++code) {
        setModuleErrno(code, "other");
    }
    EXPECT_STREQ(text, "first");
    setModuleErrno(100, "second");
    EXPECT_STREQ(getErrorMsg(100), "second") << "both setters write one table";
    EXPECT_STREQ(getErrorMsg(399), "other");
}

TEST(ErrorTableTest, ReadersAndWritersOfDifferentCodesMeet) {
    setErrorMsg(1000, "stays");
    std::thread writer([] {
        for (int code = 1001; code < 3000; ++code) {
            setErrorMsg(code, "written");
        }
    });
    for (int turn = 0; turn < 2000; ++turn) {
        ASSERT_STREQ(getErrorMsg(1000), "stays");
        ASSERT_STREQ(getModuleName(1000), "");
    }
    writer.join();
    EXPECT_STREQ(getErrorMsg(2999), "written");
}

TEST(ErrorTableTest, ProcessHasOneTranslatorForGood) {
    EXPECT_FALSE(setErrorMsgProc({}));
    EXPECT_TRUE(setErrorMsgProc({&keepEmpty}));
    EXPECT_FALSE(setErrorMsgProc({&decide}));
    setErrorMsg(5, "x");
    EXPECT_STREQ(getErrorMsg(5), "");
}

}  // namespace
