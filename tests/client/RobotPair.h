#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/sem.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/HelperProcess.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/TestName.h"

namespace OrbelTest {

/// Two robots of the example side by side, and a look at what is left of them.
class RobotPair {
public:
    RobotPair() {
        for (const std::string name : {"left", "right"}) {
            const std::string peer = name == "left" ? "right" : "left";
            std::filesystem::create_directories(mDirectory + "/" + name);
            Json::Value settings;
            settings["name"] = name;
            settings["peer"] = peer;
            settings["domain"] = mDomain;
            settings["library"]["timerPoolSize"] = 2;
            settings["library"]["fileCache"]["count"] = 2;
            settings["library"]["fileCache"]["path"] = mDirectory + "/" + name + "/cache";
            settings["configuration"]["defConfigPath"] = mDirectory + "/" + name;
            settings["configuration"]["configPath"] = mDirectory + "/" + name + "/current";
            settings["configuration"]["interval"] = 200;
            std::ofstream(mDirectory + "/" + name + ".json") << settings;
        }
    }
    RobotPair(const RobotPair&) = delete;
    RobotPair& operator=(const RobotPair&) = delete;
    ~RobotPair() {
        std::filesystem::remove_all(mDirectory);
        for (const char* name : {"_left", "_right"}) {
            IpcCleanup::removeChannel(mDomain + name);
        }
    }

    /// Runs both until they have seen each other for `seconds`, ends them with SIGTERM, and checks
    /// what they say.
    void run(unsigned seconds) {
        HelperProcess left("../examples/robot", {mDirectory + "/left.json"});
        HelperProcess right("../examples/robot", {mDirectory + "/right.json"});
        const std::set<int> pids{left.pid(), right.pid()};
        ASSERT_TRUE(left.waitForLine("left sees right"));
        ASSERT_TRUE(right.waitForLine("right sees left"));
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        kill(left.pid(), SIGTERM);
        kill(right.pid(), SIGTERM);
        check(left, seconds);
        check(right, seconds);
        checkLeftOver(pids);
    }

private:
    static void check(HelperProcess& robot, unsigned long seconds) {
        std::string line;
        do {  // it may have seen the other before it is ready, and the log client has a say
            ASSERT_TRUE(robot.readLine(line));
        } while (line.rfind("sent ", 0) != 0);
        unsigned long sent = 0, skipped = 1, received = 0, lost = 1, changes = 0;
        sscanf(line.c_str(), "sent %lu skipped %lu received %lu lost %lu changes %lu", &sent,
               &skipped, &received, &lost, &changes);
        // Ten poses a second and a change of the mileage each second, on a machine that is busy.
        EXPECT_TRUE(sent >= seconds && received >= seconds && changes >= seconds / 3) << line;
        EXPECT_TRUE(skipped == 0 && lost == 0) << line;
        EXPECT_EQ(robot.wait(), 0);
    }

    /// Nothing but what the README lists.
    void checkLeftOver(const std::set<int>& pids) const {
        const std::set<std::string> listed = {
            "/dev/shm/shmipc_domain_" + mDomain,
            "/dev/shm/shmipc_pool_" + mDomain + "_poses",
            "/dev/shm/shmipc_channel_" + mDomain + "_left_status",
            "/dev/shm/shmipc_channel_" + mDomain + "_right_status",
        };
        for (const char* directory : {"/dev/shm", "/tmp"}) {
            for (const auto& entry : std::filesystem::directory_iterator(directory)) {
                const std::string path = entry.path();
                if (path.find(mDomain) != std::string::npos && path != mDirectory) {
                    EXPECT_EQ(listed.count(path), 1u) << path;
                }
            }
        }
        for (const char* name : {"left", "right"}) {
            const std::string directory = mDirectory + "/" + name;
            std::set<std::string> files;
            for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
                files.insert(entry.path().string().substr(directory.size()));
            }
            EXPECT_EQ(files, (std::set<std::string>{"/cache", "/current", "/current/drive"}));
            Json::Value drive;
            std::ifstream(directory + "/current/drive") >> drive;
            EXPECT_GE(drive["mileage"].asDouble(), 0.5) << "the last values were not written";
        }
        checkLocks(pids);
    }

    /// One semaphore set a named lock, and no other that one of the robots has used.
    void checkLocks(const std::set<int>& pids) const {
        std::set<int> listed;
        for (const std::string& lock : {"share_mem_domain/" + mDomain, mDomain + "_poses",
                                        mDomain + "_left", mDomain + "_right"}) {
            listed.insert(static_cast<int>(std::hash<std::string>{}(lock)&0x7fffffff));
        }
        std::ifstream sets("/proc/sysvipc/sem");
        std::string line;
        int found = 0;
        std::getline(sets, line);
        while (std::getline(sets, line)) {
            int key = 0;
            int id = 0;
            if (sscanf(line.c_str(), "%d %d", &key, &id) == 2 &&
                pids.count(semctl(id, 0, GETPID)) != 0) {
                EXPECT_EQ(listed.count(key), 1u) << line;
                ++found;
            }
        }
        EXPECT_GT(found, 0) << "looked in the wrong place";
    }

    IpcCleanup mCleanup;
    const std::string mDomain = mCleanup.domain("robots");
    const std::string mDirectory = "/tmp/" + mDomain + "_files";
};

}  // namespace OrbelTest
