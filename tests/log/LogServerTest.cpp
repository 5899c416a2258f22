// The client and the example server as real processes see each other.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "log/LoggerImpl.h"
#include "tests/log/TestClient.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/TestName.h"
#include "tests/support/WaitFor.h"

using OrbelTest::HelperProcess;
using OrbelTest::waitFor;
using OrbelTest::writeLine;
using Vantel::ILogger;
using Vantel::Log::LogClientImpl;

namespace {

constexpr int kThreads = 8;

using Lines = std::vector<std::string>;

class LogServerTest : public testing::Test {
protected:
    LogServerTest() : mDirectory("/tmp/" + OrbelTest::uniqueName("orbelLogServer")) {
        std::filesystem::create_directory(mDirectory);
        startServer();
    }
    ~LogServerTest() override { std::filesystem::remove_all(mDirectory); }

    std::string socketPath() const { return mDirectory / "socket"; }

    void startServer() {
        mServer = std::make_unique<HelperProcess>(
            "../examples/log_server", Lines{"--store", mDirectory.string(), socketPath()});
        ASSERT_TRUE(mServer->waitForLine("listening on " + socketPath()));
    }

    /// Until SIGCONT, the server stands still from here on.
    void stopServer() {
        int status = 0;
        kill(mServer->pid(), SIGSTOP);
        ASSERT_EQ(waitpid(mServer->pid(), &status, WUNTRACED), mServer->pid());
        ASSERT_TRUE(WIFSTOPPED(status));
    }

    LogClientImpl& connect(const std::string& module, const std::string& wanted = "") {
        LogClientImpl& client = OrbelTest::newLogClient();
        Json::Value config;
        config["moduleName"] = module;
        config["logLevel"] = 1;
        config["socketPath"] = socketPath();
        if (!wanted.empty()) {
            config["subscribe"][0]["moduleName"] = wanted;
        }
        EXPECT_TRUE(client.init(config));
        return client;
    }

    /// What the server stored of a module; whole lines only.
    Lines stored(const std::string& module) const {
        std::ifstream file(mDirectory / (module + ".log"));
        Lines lines;
        for (std::string line; std::getline(file, line) && !file.eof();) {
            lines.push_back(line);
        }
        return lines;
    }

    /// Waits until the server has stored all that was sent, by a last line; returns what it stored.
    Lines storedAtTheEnd(LogClientImpl& client, const std::string& module) {
        EXPECT_TRUE(client.waitUntilSent(60000));
        client.print(6, "end\n");
        client.flush();
        const auto ended = [&] {
            const Lines lines = stored(module);
            return !lines.empty() && lines.back().find("]end") != std::string::npos;
        };
        EXPECT_TRUE(waitFor(ended, 60000));
        Lines lines = stored(module);
        lines.pop_back();
        return lines;
    }

    const std::filesystem::path mDirectory;
    std::unique_ptr<HelperProcess> mServer;
};

constexpr char kFiller[] = "0123456789abcdefghijklmnopqrstuvwxyz";

/// Lines of 8 threads through a logger of their own on `client`; how many the logger took.
int printFromThreads(LogClientImpl& client, int linesEach, bool paced) {
    Vantel::LoggerImpl logger(client);
    EXPECT_TRUE(logger.init("threads", 4096));
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < linesEach; ++i) {
                if (paced && i % 64 == 0) {  // 8 times 64 lines fit into the queue
                    EXPECT_TRUE(client.waitUntilSent(60000));
                }
                taken += logger.print(ILogger::kInfo, "T", "@%d %d %s.\n", thread, i, kFiller) > 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return taken;
}

/// How many of `lines` are whole lines of printFromThreads(), each thread's in their order.
int countWhole(const Lines& lines) {
    std::map<int, int> last;
    int whole = 0;
    for (const std::string& line : lines) {
        const size_t at = line.find("[T]@");
        if (at == std::string::npos) {
            continue;  // what the logger says at its start
        }
        int thread = -1;
        int number = -1;
        char filler[64] = "";
        sscanf(line.c_str() + at, "[T]@%d %d %63s", &thread, &number, filler);
        const bool good = line[0] == '[' && std::count(line.begin(), line.end(), '@') == 1 &&
                          thread >= 0 && thread < kThreads && std::string(kFiller) + "." == filler;
        EXPECT_TRUE(good) << line;
        EXPECT_TRUE(last.count(thread) == 0 || last[thread] < number) << line;
        last[thread] = number;
        whole += good ? 1 : 0;
    }
    return whole;
}

// First: from then on the poller also looks for the servers of the tests before.
TEST_F(LogServerTest, AKilledServerComesBackToItsClients) {
    static OrbelTest::Received received;
    LogClientImpl& talker = connect("talker");
    LogClientImpl& listener = connect("listener", "talker");
    received.receiveOf(listener);
    const auto hears = [&](const std::string& text) {
        return waitFor([&] {  // from the time on that the server has the subscription
            writeLine(talker, text);
            return received.has("0 " + text);
        });
    };
    EXPECT_TRUE(hears("before\n"));

    mServer->killAndReap();
    ASSERT_TRUE(waitFor([&] { return writeLine(talker, "meanwhile\n") > 0; }))
        << "it waits from then on";
    startServer();
    EXPECT_TRUE(hears("after\n"));
    EXPECT_TRUE(received.has("1 subscribed to talker"));
    const Lines lines = storedAtTheEnd(talker, "talker");
    const auto meanwhile = std::find(lines.begin(), lines.end(), "meanwhile");
    EXPECT_NE(std::find(meanwhile, lines.end(), "after"), lines.end()) << "lost or not in order";

    HelperProcess second("../examples/log_server", {socketPath()});
    EXPECT_EQ(WEXITSTATUS(second.wait()), 1) << "took a living server's name away";
    EXPECT_TRUE(hears("still there\n"));
}

TEST_F(LogServerTest, EightThreadsLoseNothingAtAPaceThatTheServerKeeps) {
    LogClientImpl& client = connect("paced");
    EXPECT_EQ(printFromThreads(client, 12500, true), 100000);
    EXPECT_EQ(countWhole(storedAtTheEnd(client, "paced")), 100000);
}

TEST_F(LogServerTest, EightThreadsAtFullSpeedLoseWholeLinesIfAny) {
    LogClientImpl& client = connect("fast");
    stopServer();
    // Done while the server stands still: nobody is held up, and a full queue takes a line as well.
    EXPECT_EQ(printFromThreads(client, 500, false), 4000);
    kill(mServer->pid(), SIGCONT);
    const int arrived = countWhole(storedAtTheEnd(client, "fast"));
    EXPECT_GE(arrived, 1024);
    EXPECT_LT(arrived, 4000) << "the queue was never full: this shows nothing";
}

}  // namespace
