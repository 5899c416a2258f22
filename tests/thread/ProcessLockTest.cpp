#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <new>
#include <string>
#include <thread>

#include "Vantel/Orbel/CProcessMutex.h"
#include "Vantel/Orbel/SHMMutex.h"
#include "frame/base/Guard.h"
#include "frame/base/Mapping.h"
#include "frame/base/UniqueFd.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/TestName.h"

using namespace Vantel::Orbel;
using OrbelTest::HelperProcess;
using OrbelTest::uniqueName;

namespace {

class SHMMutexTest : public testing::Test {
protected:
    void SetUp() override {
        UniqueFd fd(shm_open(mName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        ASSERT_TRUE(fd.valid());
        ASSERT_EQ(ftruncate(fd.get(), sizeof(SHMMutex)), 0);
        void* base =
            mmap(nullptr, sizeof(SHMMutex), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        ASSERT_NE(base, MAP_FAILED);
        mMapping = Mapping(base, sizeof(SHMMutex));
        mLock = new (base) SHMMutex;
    }
    void TearDown() override { shm_unlink(mName.c_str()); }

    const std::string mName = "/" + uniqueName("shmMutexTest");
    Mapping mMapping;
    SHMMutex* mLock = nullptr;
};

TEST_F(SHMMutexTest, ADeadOwnersLockGoesToTheNextEnterAndNotToTryEnter) {
    for (const char* next : {"enter", "waiting enter", "tryEnter"}) {
        SCOPED_TRACE(next);
        HelperProcess holder("ProcessLockHelper", {"shared", mName});
        ASSERT_TRUE(holder.waitForLine("inside"));
        ASSERT_FALSE(mLock->tryEnter());
        std::thread other([&] {
            if (*next == 't') {
                holder.killAndReap();
                EXPECT_FALSE(mLock->tryEnter());
                return;  // and must not have kept the lock
            }
            if (*next == 'e') {
                holder.killAndReap();
            }
            ASSERT_TRUE(mLock->enter());
            std::thread([&] { EXPECT_FALSE(mLock->tryEnter()) << "not really held"; }).join();
            EXPECT_TRUE(mLock->enter()) << "still recursive";
            EXPECT_TRUE(mLock->leave() && mLock->leave());
        });
        if (*next == 'w') {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            holder.killAndReap();
        }
        other.join();
        EXPECT_TRUE(mLock->tryEnter() && mLock->leave());
    }
}

class CProcessMutexTest : public testing::Test {
protected:
    void TearDown() override {
        if (semid() >= 0) {
            semctl(semid(), 0, IPC_RMID);
        }
    }

    int key() const { return static_cast<int>(std::hash<std::string>{}(mName)&0x7fffffff); }
    int semid() const { return semget(key(), 0, 0); }
    int value() const { return semctl(semid(), 0, GETVAL); }

    const std::string mName = uniqueName("CProcessMutexTest.a name of its own");
};

TEST_F(CProcessMutexTest, NameAndKeyMeetInOneSetThatOutlivesThem) {
    {
        CProcessMutex named(mName.c_str());
        ASSERT_GE(semid(), 0) << "not at the key that other processes compute";
        EXPECT_EQ(value(), 1);
        CProcessMutex keyed(static_cast<unsigned long>(key()));
        EXPECT_TRUE(named.enter());
        EXPECT_EQ(value(), 0);
        EXPECT_TRUE(keyed.leave());
        EXPECT_EQ(value(), 1);
        EXPECT_TRUE(keyed.enter());
        CProcessMutex late(mName.c_str());
        EXPECT_EQ(value(), 0) << "a joiner leaves the value alone";
        EXPECT_TRUE(late.leave());
    }
    EXPECT_EQ(value(), 1);
}

/// The holder keeps it for more than a second and never left since the set was made: that is no
/// abandoned set, however old it gets.
TEST_F(CProcessMutexTest, OnlyDeathInsideGivesItBack) {
    HelperProcess holder("ProcessLockHelper", {"named", mName});
    ASSERT_TRUE(holder.waitForLine("inside"));
    std::atomic<bool> entered{false};
    CProcessMutex lock(mName.c_str());
    std::thread waiter([&] {
        EXPECT_TRUE(lock.enter());
        entered = true;
        EXPECT_TRUE(lock.leave());
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    CProcessMutex late(mName.c_str());
    EXPECT_EQ(value(), 0);
    EXPECT_FALSE(entered);
    holder.killAndReap();
    waiter.join();
    EXPECT_EQ(value(), 1);
}

TEST_F(CProcessMutexTest, MakerKilledBeforeSetUpBlocksNobody) {
    HelperProcess maker("ProcessLockHelper", {"maker", std::to_string(key())});
    ASSERT_TRUE(maker.waitForLine("inside"));
    maker.killAndReap();
    CProcessMutex early(mName.c_str());
    EXPECT_EQ(value(), 0) << "the maker might still be at it";
    std::atomic<int> inside{0};
    const auto work = [&](CProcessMutex& lock) {
        for (int i = 0; i < 200; ++i) {
            ASSERT_TRUE(lock.enter());
            ASSERT_EQ(++inside, 1) << "repaired twice";
            --inside;
            ASSERT_TRUE(lock.leave());
        }
    };
    CProcessMutex second(mName.c_str());
    std::thread other([&] { work(second); });
    work(early);
    other.join();
    EXPECT_EQ(value(), 1);
}

TEST_F(CProcessMutexTest, SignalEndsTheWaitWithEintr) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    CProcessMutex lock(mName.c_str());
    ASSERT_TRUE(lock.enter());
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        EXPECT_FALSE(lock.enter());
        EXPECT_EQ(errno, EINTR);
        done = true;
    });
    while (!done) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    waiter.join();
    EXPECT_TRUE(lock.leave());
    semctl(semid(), 0, IPC_RMID);
    EXPECT_FALSE(lock.enter() || lock.leave());
}

}  // namespace
