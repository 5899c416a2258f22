#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
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
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Orbel;
using OrbelTest::waitFor;

namespace {

constexpr auto kLong = std::chrono::milliseconds(30);  // for all steps of backing off

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

TYPED_TEST(ExclusiveLockTest, KeepsThreadsApartAndWaitsForALongHolder) {
    long count = 0;  // plain: a lost update or a data race shows
    this->mLock.enter();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int turn = 0; turn < 20000; ++turn) {
                Guard<TypeParam> guard(this->mLock);
                ++count;
            }
        });
    }
    std::this_thread::sleep_for(kLong);
    EXPECT_EQ(count, 0);
    this->mLock.leave();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(count, 80000);
}

TYPED_TEST(ExclusiveLockTest, TryEnterIsFalseOnlyWhileHeld) {
    if constexpr (requires { this->mLock.tryEnter(); }) {
        ASSERT_TRUE(this->mLock.tryEnter());
        elsewhere([&] { EXPECT_FALSE(this->mLock.tryEnter()); });
        this->mLock.leave();
        elsewhere([&] {
            EXPECT_TRUE(this->mLock.tryEnter());
            this->mLock.leave();
        });
    }
}

template <class Lock>
class RecursiveLockTest : public ExclusiveLockTest<Lock> {};

using RecursiveLocks = testing::Types<CRecursiveMutex, SHMMutex>;
TYPED_TEST_SUITE(RecursiveLockTest, RecursiveLocks);

TYPED_TEST(RecursiveLockTest, NeedsAsManyLeavesAsEnters) {
    std::atomic<bool> entered{false};
    ASSERT_TRUE(this->mLock.enter() && this->mLock.enter() && this->mLock.leave());
    std::thread other([&] {
        Guard<TypeParam> guard(this->mLock);
        entered = true;
    });
    std::this_thread::sleep_for(kLong);
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
        EXPECT_DEATH((errno = known, this->mLock.leave()), "!known");
    }
}

TEST(PrioMutexTest, RefusesAStranger) {
    PrioMutex lock;
    ASSERT_TRUE(lock.enter());
    elsewhere([&] { EXPECT_FALSE(lock.leave()) << "priority inheritance knows the owner"; });
    EXPECT_TRUE(lock.leave());
}
#endif

TEST(LockDeathTest, SetUpAndTearDown) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(CMutex().enter(), "ret == 0") << "destroyed while it is held";
    EXPECT_DEATH(CRecursiveMutex().enter(), "Assertion");
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
    CCondMutex lock;  // each returns at once, with nothing notified and the lock not held
    EXPECT_TRUE(lock.wait() && lock.notify() && lock.broadcast());
}

/// One face for both kinds of read-write lock.
struct BlockingReadWrite : CReadWriteMutex {
    void leaveReading() { leave(); }
    void leaveWriting() { leave(); }
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
    this->mLock.enterReading();
    elsewhere(read);  // would hang if readers kept each other out
    std::thread threads[] = {std::thread(write), std::thread(write), std::thread(read)};
    std::this_thread::sleep_for(kLong);
    EXPECT_EQ(first, 0);
    this->mLock.leaveReading();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(first, 10000);
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
    std::this_thread::sleep_for(kLong);  // now it waits, most likely
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
    OrbelTest::LogCapture log;
    EXPECT_TRUE(readerPassesWaitingWriter(kReadWriteDefault));
    EXPECT_TRUE(waitFor([] { return !readerPassesWaitingWriter(kReadWriteWriters); }));
    EXPECT_EQ(log.lines().size(), 0u);
    EXPECT_TRUE(readerPassesWaitingWriter(static_cast<RW_PRIORITY>(7))) << "counts as the default";
    EXPECT_TRUE(log.has("Input rwpriority level error, priorityDefault used!"));
}

TEST(CReadWriteMutexTest, ARefusalIsAWarning) {
    OrbelTest::LogCapture log;
    CReadWriteMutex lock;
    ASSERT_TRUE(lock.enterWriting());
    EXPECT_FALSE(lock.enterWriting());
    EXPECT_FALSE(lock.enterReading());
    EXPECT_TRUE(log.has("pthread_rwlock_wrlock called failed for :Resource deadlock avoided"));
    EXPECT_TRUE(log.has("pthread_rwlock_rdlock called failed for :Resource deadlock avoided"));
    EXPECT_TRUE(lock.leave());
}

}  // namespace
