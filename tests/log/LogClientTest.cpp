#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "log/LogClientImpl.h"
#include "tests/log/RawLogServer.h"
#include "tests/support/WaitFor.h"

using OrbelTest::RawLogServer;
using OrbelTest::waitFor;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;
using Vantel::Log::LogClientImpl;
using Vantel::Log::LogCommand;

namespace {

constexpr int kHeader = 44;

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

/// A client is never destroyed: each test makes one, which stays, and so does its server, lest the
/// poller spend its time on looking for it.
class LogClientTest : public testing::Test {
protected:
    LogClientTest() : mClient(new LogClientImpl), mServer(newServer()) {
        static std::vector<LogClientImpl*> kept;
        kept.push_back(mClient);
        mConfig["moduleName"] = "robotd";
        mConfig["socketPath"] = mServer.path();
    }

    void connect() {
        ASSERT_TRUE(mClient->init(mConfig));
        ASSERT_TRUE(mServer.acceptAndRegister());
    }

    int write(const std::string& line) {
        std::string buffer = std::string(kHeader, 'x') + line;
        return mClient->write(buffer.data(), static_cast<int>(line.size()));
    }

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

}  // namespace
