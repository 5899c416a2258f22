#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <memory>
#include <vector>

#include "log/SessionMgr.h"
#include "tests/log/RawLogServer.h"
#include "tests/log/TestClient.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/WaitFor.h"

using OrbelTest::RawLogServer;
using OrbelTest::Received;
using OrbelTest::waitFor;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;
using Vantel::Log::LogClientImpl;
using Vantel::Log::SessionMgr;

namespace {

constexpr int kHeader = OrbelTest::kLogHeader;

/// The bytes of a packet, put together without the library.
std::string packet(uint32_t command, const std::string& payload) {
    std::string bytes("\xAA\x55\x55\xAA", 4);
    const auto size = static_cast<uint32_t>(payload.size());
    bytes.append(reinterpret_cast<const char*>(&command), 4);
    bytes.append(reinterpret_cast<const char*>(&size), 4);
    return bytes + std::string(32, '\0') + payload;
}

std::string padded(std::string text, size_t size) {
    text.resize(size, '\0');
    return text;
}

int occurrences(const std::string& text, const std::string& word) {
    int found = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
        ++found;
    }
    return found;
}

/// A client is never destroyed, and so its server stays, lest the poller look for it in vain.
class LogClientTest : public testing::Test {
protected:
    LogClientTest() : mClient(&OrbelTest::newLogClient()), mServer(newServer()) {
        mConfig["moduleName"] = "robotd";
        mConfig["socketPath"] = mServer.path();
    }

    void connect() {
        ASSERT_TRUE(mClient->init(mConfig));
        ASSERT_TRUE(mServer.acceptAndRegister());
    }

    int write(const std::string& line) { return OrbelTest::writeLine(*mClient, line); }

    LogClientImpl* mClient;
    RawLogServer& mServer;
    Json::Value mConfig;

private:
    static RawLogServer& newServer() {
        static std::vector<std::unique_ptr<RawLogServer>> kept;
        return *kept.emplace_back(std::make_unique<RawLogServer>());
    }
};

TEST_F(LogClientTest, RegistersAndSendsByteByByte) {
    const std::string longName(130, 'n');
    for (const char* name : {"a", "b"}) {
        Json::Value wanted;
        wanted["moduleName"] = name;
        mConfig["subscribe"].append(wanted);
    }
    mConfig["subscribe"].append("no object");
    mConfig["moduleName"] = longName;
    ASSERT_TRUE(mClient->init(mConfig));
    ASSERT_TRUE(mServer.accept());
    const int32_t pid = getpid();
    std::string registration = longName.substr(0, 128);  // cut, and without terminator
    registration.append(reinterpret_cast<const char*>(&pid), 4);
    EXPECT_EQ(mServer.read(192), packet(0, padded(registration, 148)));
    EXPECT_EQ(mServer.read(172), packet(3, padded("a", 128)));
    EXPECT_EQ(mServer.read(172), packet(3, padded("b", 128)));

    EXPECT_EQ(write("[x]hello\n"), kHeader + 9);
    EXPECT_TRUE(mClient->flush());
    EXPECT_TRUE(mClient->notifyServer());
    const int printed = mClient->print(6, "%s %d\n", "last", 1);
    const std::string expected = packet(1, "[x]hello\n") + packet(2, "") + packet(4, "");
    EXPECT_EQ(mServer.read(expected.size()), expected);
    std::string line;
    EXPECT_EQ(mServer.readPacket(line).cmd, 1u);
    EXPECT_EQ(line.substr(25),
              "[" + longName + "][fatal][" + std::to_string(gettid()) + "]last 1\n");
    EXPECT_EQ(static_cast<size_t>(printed), kHeader + line.size());
    EXPECT_TRUE(mServer.silentFor(50));
}

TEST_F(LogClientTest, WithoutAServerInitFailsAndMayBeTriedAgain) {
    EXPECT_EQ(write("x"), 0) << "no session yet";
    EXPECT_EQ(mClient->print(6, "x"), 0);
    EXPECT_FALSE(mClient->flush());
    CaptureStderr();
    EXPECT_FALSE(mClient->init(Json::Value()));
    EXPECT_FALSE(mClient->init(Json::Value("text")));
    EXPECT_EQ(GetCapturedStderr(), "not config moduleName\nnot config moduleName\n");

    mServer.die();
    const auto begin = std::chrono::steady_clock::now();
    CaptureStdout();
    EXPECT_FALSE(mClient->init(mConfig));
    EXPECT_EQ(GetCapturedStdout(), "Error, cannot connect to unix address " + mServer.path() +
                                       ":No such file or directory\n");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1900));
    EXPECT_EQ(write("x"), -1);
    EXPECT_EQ(mClient->print(6, "x"), -1);
    EXPECT_FALSE(mClient->flush());
    EXPECT_TRUE(mClient->waitUntilSent(0));

    mServer.listen();
    connect();
    CaptureStderr();
    EXPECT_TRUE(mClient->init(mConfig));
    EXPECT_EQ(GetCapturedStderr(), "Logger client already inited\n");
    EXPECT_EQ(write("x"), kHeader + 1);
}

TEST_F(LogClientTest, LevelsAndSizesHaveLimits) {
    mConfig["logLevel"] = 4;
    mConfig["subscribe"]["no array"]["moduleName"] = "arm";  // asks for nothing
    connect();
    EXPECT_EQ(mClient->print(3, "below"), 0);
    EXPECT_EQ(mClient->print(7, "above"), 0);
    mClient->setLogLevel(0);
    EXPECT_GT(mClient->print(0, "%s", "zero"), 0);
    EXPECT_GT(mClient->print(2, "%s", "two"), 0);
    std::string line;
    mServer.readPacket(line);
    EXPECT_NE(line.find("[robotd][Unknown]["), std::string::npos) << line;
    mServer.readPacket(line);
    EXPECT_NE(line.find("[robotd][debug]["), std::string::npos) << line;

    const std::string longest(0x100000, 'l');
    EXPECT_EQ(write(longest), kHeader + 0x100000);
    EXPECT_EQ(mServer.read(kHeader + longest.size()), packet(1, longest));
    CaptureStdout();
    EXPECT_EQ(write(longest + "x"), -1);
    EXPECT_EQ(mClient->print(6, "%s", longest.c_str()), -1);
    const std::string refused = "logClient [robotd] print log buffer too big size = ";
    EXPECT_EQ(GetCapturedStdout().find(refused + "1048577\n\n" + refused), 0u);
    EXPECT_EQ(write(""), 0);
    EXPECT_EQ(mClient->write(nullptr, 5), 0);
    EXPECT_TRUE(mServer.silentFor(20));
}

TEST_F(LogClientTest, SurvivesWhatAServerSends) {
    static Received received;
    received.receiveOf(*mClient);
    connect();
    std::string negative = packet(1, "");
    negative[11] = '\x80';
    std::string huge = packet(1, "");
    huge.replace(8, 4, std::string("\x01\x00\x10\x00", 4));
    std::string magic = packet(1, "");
    magic[0] = 'x';
    const std::string invalid = "Log Client receive Invalid packet buffer ";
    const struct {
        const char* why;
        std::string bytes;
        std::string message;
        std::string data;
    } cases[] = {
        {"a line", packet(1, "line\n"), "", "0 line\n"},
        {"an empty line", packet(1, ""), "", "0 "},
        {"the longest line", packet(1, std::string(0x100000, 'l')), "",
         "0 " + std::string(0x100000, 'l')},
        {"a text", packet(5, padded("text", 256)), "", "1 text"},
        {"a text without end", packet(5, std::string(256, 't')), "", "1 " + std::string(256, 't')},
        {"a command for servers", packet(2, ""), "Error, Not support cmd 2\n", ""},
        {"a command of nobody", packet(0x80000000, "x"), "Error, Not support cmd -2147483648\n",
         ""},
        {"half a header", packet(1, "").substr(0, 20), invalid + "20, magic = 0xaa5555aa\n", ""},
        {"another magic", magic, invalid + "44, magic = 0xaa555578\n", ""},
        {"a negative size", negative, invalid + "44, magic = 0xaa5555aa\n", ""},
        {"an oversized packet", huge, invalid + "44, magic = 0xaa5555aa\n", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        CaptureStdout();
        mServer.send(c.bytes);
        ASSERT_TRUE(waitFor([&] { return mServer.sentAllIsRead(); }));
        mServer.send(packet(5, "behind"));  // the connection stays, and takes a new header
        EXPECT_TRUE(waitFor([&] { return received.has("1 behind"); }));
        EXPECT_EQ(GetCapturedStdout(), c.message);
        const std::vector<std::string> got = received.take();
        EXPECT_EQ(got.size(), c.data.empty() ? 1u : 2u);
        EXPECT_EQ(got.front(), c.data.empty() ? "1 behind" : c.data);
    }
    EXPECT_EQ(write("x"), kHeader + 1);
}

TEST_F(LogClientTest, WhatIsLeftOfAPacketGoesBeforeWhatFollows) {
    connect();
    const std::string big(800000, 'b');
    EXPECT_EQ(write(big), kHeader + 800000) << "queued is as good as written";
    std::string expected = packet(1, big);
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(write(std::to_string(i)), kHeader + static_cast<int>(std::to_string(i).size()));
        expected += packet(1, std::to_string(i));
        EXPECT_TRUE(mClient->flush());
        expected += packet(2, "");
    }
    EXPECT_FALSE(mClient->waitUntilSent(20)) << "nobody reads";
    EXPECT_EQ(mServer.read(expected.size()), expected);
    EXPECT_TRUE(mClient->waitUntilSent(20000));
}

TEST_F(LogClientTest, AfterAReturnTheServerGetsAllThatWaitedFromTheStartOfAPacket) {
    Json::Value wanted;
    wanted["moduleName"] = "arm";
    mConfig["subscribe"].append(wanted);
    connect();
    EXPECT_EQ(mServer.read(172), packet(3, padded("arm", 128)));
    const std::string big(800000, 'b');
    write(big);
    write("behind");
    EXPECT_EQ(mServer.read(1000), packet(1, big).substr(0, 1000));
    const long descriptors = OrbelTest::openDescriptors();
    mServer.send(packet(1, padded("half", 100)).substr(0, 60));  // dies within its own packet, too
    ASSERT_TRUE(waitFor([&] { return mServer.sentAllIsRead(); }));
    mServer.die();
    write("meanwhile");

    static Received received;
    received.receiveOf(*mClient);
    mServer.listen();
    ASSERT_TRUE(mServer.acceptAndRegister());
    const std::string expected = packet(3, padded("arm", 128)) + packet(1, big) +
                                 packet(1, "behind") + packet(1, "meanwhile");
    EXPECT_EQ(mServer.read(expected.size()), expected);
    mServer.send(packet(1, "new server"));
    EXPECT_TRUE(waitFor([&] { return received.has("0 new server"); }));
    EXPECT_EQ(OrbelTest::openDescriptors(), descriptors);
}

TEST_F(LogClientTest, OfAnOverfullQueueTheOldestAndTheLastSurvive) {
    connect();
    CaptureStdout();
    mServer.die();
    // Before the loss is noticed the socket refuses; from then on packets wait.
    ASSERT_TRUE(waitFor([&] { return write("0") > 0; }));
    for (int i = 1; i < 1030; ++i) {
        const std::string line = std::to_string(i);
        EXPECT_EQ(write(line), kHeader + static_cast<int>(line.size())) << "never refused";
    }
    mServer.listen();
    ASSERT_TRUE(mServer.acceptAndRegister());
    EXPECT_LT(occurrences(GetCapturedStdout(), "server close socket"), 3)
        << "a dead descriptor wakes the poller";
    std::string expected;
    for (int i = 0; i < 1024; ++i) {
        expected += packet(1, std::to_string(i));
    }
    expected += packet(1, "1029");
    EXPECT_EQ(mServer.read(expected.size()), expected);
    EXPECT_TRUE(mServer.silentFor(50));
}

TEST(SessionMgrTest, KnowsNoForeignDescriptor) {
    CaptureStdout();
    EXPECT_FALSE(SessionMgr::instance().remove(1000000));
    EXPECT_FALSE(SessionMgr::instance().modify(1000000, SessionMgr::kInput));
    EXPECT_EQ(GetCapturedStdout(), "Error >>>>>>>>>>\nnot found fd = 1000000 session\n");
}

}  // namespace
