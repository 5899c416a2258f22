#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/CThreadManager.h"
#include "Vantel/Orbel/IThreadPool.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using namespace Vantel::Orbel;
using OrbelTest::waitFor;

namespace {

std::atomic<int> livingTasks{0};

class Task : public IThreadTask {
public:
    explicit Task(std::function<void()> body) : mBody(std::move(body)) { ++livingTasks; }
    ~Task() override { --livingTasks; }
    void run() override { mBody(); }

private:
    std::function<void()> mBody;
};

class ThreadPoolTest : public testing::Test {
protected:
    void create(const char* name) { mPool.reset(IThreadPool::create(name)); }
    bool post() {
        return mPool->postTask(new Task([this] { ++mRan; }));
    }
    bool ran(int count) {
        return waitFor([&] { return mRan == count; });
    }
    /// One worker, busy until mOpen, behind a queue of `maxQueue`.
    void startBlocked(int maxQueue) {
        std::atomic<bool> entered{false};
        ASSERT_TRUE(mPool->initial(1, maxQueue, 0, -1));
        ASSERT_TRUE(mPool->postTask(new Task([&] {
            entered = true;
            waitFor([this] { return mOpen.load(); });
        })));
        ASSERT_TRUE(waitFor([&] { return entered.load(); }));
    }

    std::atomic<int> mRan{0};
    std::atomic<bool> mOpen{false};
    std::unique_ptr<IThreadPool, void (*)(IThreadPool*)> mPool{nullptr, &IThreadPool::destroy};
};

TEST_F(ThreadPoolTest, RunsEachTaskOnceInOrderOfTheQueue) {
    create(nullptr);
    std::vector<int> order;
    std::string name;
    for (int i = 0; i < 1000; ++i) {  // before initial(), they wait
        ASSERT_TRUE(mPool->postTask(new Task([&, i] {
            order.push_back(i);
            CThreadManager::instance()->getThreadNameById(CThread::getCurrentThreadId(), name);
            ++mRan;
        })));
    }
    ASSERT_TRUE(mPool->initial(0, 10, 99, 0));  // one thread
    ASSERT_TRUE(mPool->initial(50, 0, 0, -1)) << "changes nothing";
    ASSERT_TRUE(ran(1000));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(name, "threadPool-0");
    EXPECT_TRUE(waitFor([] { return livingTasks == 0; })) << "tasks are deleted after their run";
}

TEST_F(ThreadPoolTest, FullQueueLeavesTheTaskToTheCaller) {
    OrbelTest::LogCapture log;
    create("narrow");
    startBlocked(2);
    EXPECT_TRUE(post() && post() && post()) << "one more than the limit";
    auto refused = std::make_unique<Task>([this] { ++mRan; });
    EXPECT_FALSE(mPool->postTask(refused.get()));
    EXPECT_TRUE(log.has("threadPool [narrow] push too many task process, queueSize = 3"));
    mOpen = true;
    EXPECT_TRUE(ran(3));
}

TEST_F(ThreadPoolTest, DeInitialDropsWhatWaitsAndFinishesWhatRuns) {
    create("");
    EXPECT_TRUE(mPool->deInitial());
    startBlocked(100);
    EXPECT_TRUE(post() && post());
    std::thread opener([this] {
        waitFor([] { return livingTasks == 1; });
        mOpen = true;
    });
    EXPECT_TRUE(mPool->deInitial());
    opener.join();
    EXPECT_EQ(mRan, 0);
    EXPECT_EQ(livingTasks, 0);

    ASSERT_TRUE(mPool->initial(2, 100, 0, -1));  // and again
    ASSERT_TRUE(mPool->postTask(nullptr) && post());
    EXPECT_TRUE(ran(1)) << "a null task stopped the pool";
    EXPECT_TRUE(mPool->deInitial());
    ASSERT_TRUE(post());
    mPool.reset();
    EXPECT_EQ(livingTasks, 0) << "the pool owns what it never ran";
    EXPECT_EQ(mRan, 1);
    IThreadPool::destroy(nullptr);
}

TEST_F(ThreadPoolTest, ManyPostersManyWorkers) {
    create("many");
    ASSERT_TRUE(mPool->initial(4, 100000, 0, -1));
    std::vector<std::thread> posters;
    for (int i = 0; i < 3; ++i) {
        posters.emplace_back([this] {
            for (int n = 0; n < 3000; ++n) {
                post();
            }
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_TRUE(ran(9000));
}

}  // namespace
