#include <gtest/gtest.h>

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

struct Destroyer {
    void operator()(IThreadPool* pool) const { IThreadPool::destroy(pool); }
};
using Pool = std::unique_ptr<IThreadPool, Destroyer>;

/// Keeps a worker busy until it is opened.
struct Gate {
    std::atomic<bool> entered{false};
    std::atomic<bool> open{false};
    Task* task() {
        return new Task([this] {
            entered = true;
            waitFor([this] { return open.load(); });
        });
    }
};

std::string ownName() {
    std::string name;
    CThreadManager::instance()->getThreadNameById(CThread::getCurrentThreadId(), name);
    return name;
}

TEST(ThreadPoolTest, RunsEachTaskOnceInOrderOfTheQueue) {
    Pool pool(IThreadPool::create(nullptr));
    std::vector<int> order;
    std::string name;
    constexpr int kTasks = 1000;
    std::atomic<int> done{0};
    for (int i = 0; i < kTasks; ++i) {  // before initial(), they wait
        ASSERT_TRUE(pool->postTask(new Task([&, i] {
            order.push_back(i);
            name = ownName();
            ++done;
        })));
    }
    ASSERT_TRUE(pool->initial(0, 10, 99, 0));  // one thread
    ASSERT_TRUE(pool->initial(50, 0, 0, -1)) << "changes nothing";
    ASSERT_TRUE(waitFor([&] { return done == kTasks; }));
    for (int i = 0; i < kTasks; ++i) {
        ASSERT_EQ(order[static_cast<size_t>(i)], i);
    }
    EXPECT_EQ(name, "threadPool-0");
    EXPECT_TRUE(waitFor([] { return livingTasks == 0; })) << "tasks are deleted after their run";
}

TEST(ThreadPoolTest, FullQueueLeavesTheTaskToTheCaller) {
    OrbelTest::LogCapture log;
    Gate gate;
    Pool pool(IThreadPool::create("narrow"));
    ASSERT_TRUE(pool->initial(1, 2, 0, -1));
    ASSERT_TRUE(pool->postTask(gate.task()));
    ASSERT_TRUE(waitFor([&] { return gate.entered.load(); }));
    std::atomic<int> ran{0};
    for (int i = 0; i < 3; ++i) {  // one more than the limit
        EXPECT_TRUE(pool->postTask(new Task([&] { ++ran; })));
    }
    auto refused = std::make_unique<Task>([&] { ++ran; });
    EXPECT_FALSE(pool->postTask(refused.get()));
    EXPECT_TRUE(log.has("threadPool [narrow] push too many task process, queueSize = 3"));
    gate.open = true;
    EXPECT_TRUE(waitFor([&] { return ran == 3; }));
}

TEST(ThreadPoolTest, DeInitialDropsWhatWaitsAndFinishesWhatRuns) {
    Gate gate;
    Pool pool(IThreadPool::create(""));
    EXPECT_TRUE(pool->deInitial());
    ASSERT_TRUE(pool->initial(1, 100, 0, -1));
    ASSERT_TRUE(pool->postTask(gate.task()));
    ASSERT_TRUE(waitFor([&] { return gate.entered.load(); }));
    std::atomic<int> ran{0};
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(pool->postTask(new Task([&] { ++ran; })));
    }
    std::thread opener([&] {
        waitFor([] { return livingTasks == 1; });
        gate.open = true;
    });
    EXPECT_TRUE(pool->deInitial());
    opener.join();
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(livingTasks, 0);

    ASSERT_TRUE(pool->initial(2, 100, 0, -1));  // and again
    ASSERT_TRUE(pool->postTask(nullptr));
    ASSERT_TRUE(pool->postTask(new Task([&] { ++ran; })));
    EXPECT_TRUE(waitFor([&] { return ran == 1; })) << "a null task stopped the pool";
    EXPECT_TRUE(pool->deInitial());
    ASSERT_TRUE(pool->postTask(new Task([&] { ++ran; })));
    pool.reset();
    EXPECT_EQ(livingTasks, 0) << "the pool owns what it never ran";
    EXPECT_EQ(ran, 1);
    IThreadPool::destroy(nullptr);
}

TEST(ThreadPoolTest, ManyPostersManyWorkers) {
    Pool pool(IThreadPool::create("many"));
    ASSERT_TRUE(pool->initial(4, 100000, 0, -1));
    std::atomic<int> ran{0};
    std::vector<std::thread> posters;
    for (int i = 0; i < 3; ++i) {
        posters.emplace_back([&] {
            for (int n = 0; n < 3000; ++n) {
                pool->postTask(new Task([&] { ++ran; }));
            }
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_TRUE(waitFor([&] { return ran == 9000; }));
}

}  // namespace
