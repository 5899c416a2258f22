#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>
#include <vector>

#include "Vantel/ILogger.h"
#include "Vantel/Orbel/CCondMutex.h"
#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CProcessMutex.h"
#include "Vantel/Orbel/CReadWriteMutex.h"
#include "Vantel/Orbel/CRecursiveMutex.h"
#include "Vantel/Orbel/CSpin.h"
#include "Vantel/Orbel/PrioMutex.h"
#include "Vantel/Orbel/RWSpinLock.h"
#include "Vantel/Orbel/SHMMutex.h"
#include "Vantel/Orbel/SpinLock.h"
#include "frame/base/Guard.h"
#include "tests/support/WaitFor.h"
#include "tests/support/WithoutLogServer.h"

using namespace Vantel::Orbel;
using OrbelTest::waitFor;

namespace {

/// Runs `body` in another thread and waits for its end.
template <class Body>
void elsewhere(Body body) {
    std::thread(body).join();
}

template <class Lock>
class ExclusiveLockTest : public testing::Test {
protected:
    Lock mLock;
};

using ExclusiveLocks =
    testing::Types<CMutex, PrioMutex, CRecursiveMutex, CCondMutex, SHMMutex, CSpin, SpinLock>;
TYPED_TEST_SUITE(ExclusiveLockTest, ExclusiveLocks);

TYPED_TEST(ExclusiveLockTest, KeepsThreadsApart) {
    long count = 0;  // plain: a lost update or a data race shows
    const auto work = [&] {
        for (int i = 0; i < 20000; ++i) {
            Guard<TypeParam> guard(this->mLock);
            ++count;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(work);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(count, 80000);
}

/// A lock held for long, so that waiters go through all steps of backing off.
TYPED_TEST(ExclusiveLockTest, WaitsForALongHolder) {
    std::atomic<bool> entered{false};
    this->mLock.enter();
    std::thread waiter([&] {
        Guard<TypeParam> guard(this->mLock);
        entered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(entered);
    this->mLock.leave();
    waiter.join();
    EXPECT_TRUE(entered);
}

template <class Lock>
class TryLockTest : public ExclusiveLockTest<Lock> {};

using TryLocks = testing::Types<CMutex, PrioMutex, SHMMutex, CSpin, SpinLock>;
TYPED_TEST_SUITE(TryLockTest, TryLocks);

TYPED_TEST(TryLockTest, TryEnterIsFalseOnlyWhileHeld) {
    ASSERT_TRUE(this->mLock.tryEnter());
    elsewhere([&] { EXPECT_FALSE(this->mLock.tryEnter()); });
    this->mLock.leave();
    elsewhere([&] {
        EXPECT_TRUE(this->mLock.tryEnter());
        this->mLock.leave();
    });
}

template <class Lock>
class RecursiveLockTest : public ExclusiveLockTest<Lock> {};

using RecursiveLocks = testing::Types<CRecursiveMutex, SHMMutex>;
TYPED_TEST_SUITE(RecursiveLockTest, RecursiveLocks);

TYPED_TEST(RecursiveLockTest, NeedsAsManyLeavesAsEnters) {
    std::atomic<bool> entered{false};
    ASSERT_TRUE(this->mLock.enter());
    ASSERT_TRUE(this->mLock.enter());
    ASSERT_TRUE(this->mLock.leave());
    std::thread other([&] {
        this->mLock.enter();
        entered = true;
        this->mLock.leave();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(entered) << "given back by the inner leave";
    ASSERT_TRUE(this->mLock.leave());
    other.join();
}

#if !defined(__SANITIZE_THREAD__)  // which reports the misuse that these are about
/// The unlock of a lock that nobody holds is refused; what leave() makes of that depends on
/// errno alone. (A default mutex does not notice, a read-write lock neither.)
TYPED_TEST(RecursiveLockTest, RefusedLeaveGoesByErrno) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    for (const int harmless : {0, EDEADLK, ENOENT}) {
        errno = harmless;
        EXPECT_TRUE(this->mLock.leave()) << harmless;
    }
    for (const int known : {EPERM, EINTR, EINVAL}) {
        EXPECT_DEATH(
            {
                errno = known;
                this->mLock.leave();
            },
            "!known");
    }
}

TEST(PrioMutexTest, RefusesOwnerAndStranger) {
    PrioMutex lock;
    ASSERT_TRUE(lock.enter());
    EXPECT_FALSE(lock.tryEnter());
    elsewhere([&] { EXPECT_FALSE(lock.leave()) << "priority inheritance knows the owner"; });
    EXPECT_TRUE(lock.leave());
}
#endif

TEST(LockDeathTest, SetUpAndTearDown) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            CMutex lock;
            lock.enter();
        },
        "ret == 0");
    EXPECT_DEATH(
        {
            CRecursiveMutex lock;
            lock.enter();
        },
        "Assertion");
    EXPECT_DEATH(CProcessMutex(static_cast<const char*>(nullptr)), "Assertion");
    EXPECT_DEATH(
        {
            Vantel::ILogger::instance()->init("test", 4096);  // only in the child
            Vantel::ILogger::instance()->setOutput(1);
            CProcessMutex lock("");
        },
        "fatal.*CProcessMutex semget name invalid");
}

TEST(CCondMutexTest, ConditionDoesNothing) {
    CCondMutex lock;
    EXPECT_TRUE(lock.wait());  // returns at once, with nothing notified and the lock not held
    EXPECT_TRUE(lock.notify());
    EXPECT_TRUE(lock.broadcast());
}

/// One face for both kinds of read-write lock.
struct BlockingReadWrite {
    void enterReading() { mLock.enterReading(); }
    void leaveReading() { mLock.leave(); }
    void enterWriting() { mLock.enterWriting(); }
    void leaveWriting() { mLock.leave(); }
    CReadWriteMutex mLock;
};

template <class Lock>
class ReadWriteTest : public testing::Test {
protected:
    Lock mLock;
};

using ReadWriteLocks = testing::Types<BlockingReadWrite, RWSpinLock>;
TYPED_TEST_SUITE(ReadWriteTest, ReadWriteLocks);

TYPED_TEST(ReadWriteTest, ReadersShareWritersDoNot) {
    long first = 0;
    long second = 0;
    std::atomic<int> torn{0};
    const auto write = [&] {
        for (int i = 0; i < 5000; ++i) {
            this->mLock.enterWriting();
            ++first;
            ++second;
            this->mLock.leaveWriting();
        }
    };
    const auto read = [&] {
        for (int i = 0; i < 5000; ++i) {
            this->mLock.enterReading();
            torn += first != second ? 1 : 0;
            this->mLock.leaveReading();
        }
    };
    std::thread threads[] = {std::thread(write), std::thread(write), std::thread(read),
                             std::thread(read)};
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(first, 10000);

    this->mLock.enterReading();
    elsewhere([&] {  // would hang if readers kept each other out
        this->mLock.enterReading();
        this->mLock.leaveReading();
    });
    std::atomic<bool> written{false};
    std::thread writer([&] {
        this->mLock.enterWriting();
        written = true;
        this->mLock.leaveWriting();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(written);
    this->mLock.leaveReading();
    writer.join();
}

/// Whether a new reader gets in beside a reader while a writer waits.
bool readerPassesWaitingWriter(RW_PRIORITY priority) {
    CReadWriteMutex lock(priority);
    std::atomic<bool> passed{false};
    std::atomic<bool> writing{false};
    lock.enterReading();
    std::thread writer([&] {
        writing = true;
        lock.enterWriting();
        lock.leave();
    });
    waitFor([&] { return writing.load(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // now it waits
    std::thread reader([&] {
        lock.enterReading();
        passed = true;
        lock.leave();
    });
    const bool result =
        waitFor([&] { return passed.load(); }, priority == kReadWriteWriters ? 100 : 30000);
    lock.leave();
    reader.join();
    writer.join();
    return result;
}

TEST(CReadWriteMutexTest, PriorityDecidesWhoGoesFirst) {
    EXPECT_TRUE(readerPassesWaitingWriter(kReadWriteDefault));
    EXPECT_FALSE(readerPassesWaitingWriter(kReadWriteWriters));
    EXPECT_TRUE(readerPassesWaitingWriter(static_cast<RW_PRIORITY>(7))) << "counts as the default";
}

}  // namespace
