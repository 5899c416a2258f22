#include "Vantel/Orbel/ProcessServices.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include "frame/base/UniqueFd.h"

using namespace Vantel::Orbel;

namespace {

TEST(SystemCallTest, ResultIsTheRawWaitStatus) {
    EXPECT_EQ(systemCall(nullptr), 1);
    EXPECT_EQ(systemCall("true"), 0);
    EXPECT_EQ(systemCall("exit 3"), 768);
    EXPECT_EQ(systemCall("/no/such/program 2>/dev/null"), 127 << 8);
    const int killed = systemCall("kill -9 $$");
    EXPECT_TRUE(WIFSIGNALED(killed) && WTERMSIG(killed) == SIGKILL) << killed;
}

TEST(SystemCallTest, CommandInheritsNoDescriptor) {
    UniqueFd low(open("/dev/null", O_RDONLY));  // not close-on-exec
    UniqueFd high(fcntl(low.get(), F_DUPFD, 1000));
    ASSERT_TRUE(low.valid() && high.valid());
    // `ls` has one of its own, for the directory.
    EXPECT_EQ(systemCall("test $(ls /proc/self/fd | wc -l) -le 4"), 0);
    EXPECT_EQ(fcntl(low.get(), F_GETFD), 0) << "closed in the parent, too";
}

TEST(SystemCallTest, SignalsAndThreadsDoNotDisturbTheWait) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);  // without SA_RESTART: waitpid is interrupted
    std::atomic<bool> done{false};
    std::thread caller([&] {
        EXPECT_EQ(systemCall("sleep 0.1; exit 4"), 4 << 8);
        done = true;
    });
    std::thread other([&] { EXPECT_EQ(systemCall("exit 5"), 5 << 8); });
    while (!done) {
        pthread_kill(caller.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    caller.join();
    other.join();
}

TEST(SystemLoadTest, CostIsOfAllButTheIdleTicks) {
    const CPUInfo none{};
    const struct {
        const char* why;
        CPUInfo second;
        uint64_t cost;
    } cases[] = {
        {"nothing passed", none, 100000},
        {"idle", {0, 0, 0, 500, 0, 0, 0, 0}, 0},
        {"a quarter", {10, 5, 5, 75, 5, 0, 0, 0}, 25000},
        {"interrupts count, steal does not", {0, 0, 0, 75, 0, 20, 5, 900}, 25000},
        {"more idle than all together",
         {static_cast<uint64_t>(-50), 0, 0, 100, 0, 0, 0, 0},
         100000},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(calculateCpuCost(none, c.second), c.cost) << c.why;
    }
}

TEST(SystemLoadTest, ReadingsAreOfThisMachine) {
    CPUInfo first{};
    CPUInfo second{};
    ASSERT_TRUE(getCPUInfo(first) && getCPUInfo(second));
    EXPECT_GT(first.idle, 0U);
    EXPECT_GE(second.user, first.user);

    long freeMb = -1;
    const long totalMb = getMemorySize(freeMb);
    EXPECT_TRUE(freeMb > 0 && freeMb < totalMb) << freeMb;
    std::ifstream meminfo("/proc/meminfo");
    std::string word;
    long totalKb = 0;
    meminfo >> word >> totalKb;
    EXPECT_NEAR(static_cast<double>(totalMb), static_cast<double>(totalKb) / 1024, 2);
    EXPECT_TRUE(getMemoryUsage() > 0 && getMemoryUsage() < 100);
}

TEST(EnvironmentTest, SetReadRemove) {
    EXPECT_EQ(getEnvVariable(nullptr), nullptr);
    EXPECT_EQ(getEnvVariable(""), nullptr);
    EXPECT_EQ(setEnvVariable(nullptr, "x"), -1);
    EXPECT_EQ(setEnvVariable("A=B", "x"), -1);
    EXPECT_EQ(setEnvVariable("ORBEL_TEST", "one"), 0);
    EXPECT_EQ(setEnvVariable("ORBEL_TEST", "two"), 0);
    EXPECT_STREQ(getEnvVariable("ORBEL_TEST"), "two");
    EXPECT_EQ(setEnvVariable("ORBEL_TEST", nullptr), 0);
    EXPECT_EQ(getEnvVariable("ORBEL_TEST"), nullptr);
}

/// The processors that a thread may run on.
cpu_set_t allowed(pid_t tid) {
    cpu_set_t set;
    CPU_ZERO(&set);
    EXPECT_EQ(sched_getaffinity(tid, sizeof set, &set), 0);
    return set;
}

TEST(AffinityTest, BindsTheMainThreadWhoeverCalls) {
    const cpu_set_t before = allowed(0);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(setProcessAffinity(-2));
    EXPECT_FALSE(setProcessAffinity(getCpuNum()));
    const std::string count = std::to_string(getCpuNum());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "set cpu affinity(-2),core num " + count +
                                                          ".....\nset cpu affinity(" + count +
                                                          "),core num " + count + ".....\n");
    std::thread([&] {
        EXPECT_TRUE(setProcessAffinity(0));
        const cpu_set_t mine = allowed(0);
        EXPECT_TRUE(CPU_EQUAL(&mine, &before));
    }).join();
    cpu_set_t now = allowed(getpid());
    EXPECT_EQ(CPU_COUNT(&now), 1);
    EXPECT_TRUE(CPU_ISSET(0, &now));
    EXPECT_TRUE(setProcessAffinity(-1));
    now = allowed(getpid());
    EXPECT_GE(CPU_COUNT(&now), CPU_COUNT(&before));
    sched_setaffinity(getpid(), sizeof before, &before);
}

}  // namespace
