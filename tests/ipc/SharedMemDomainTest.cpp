#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/IThreadPool.h"
#include "frame/base/UniqueFd.h"
#include "ipc/SharedDomainImpl.h"
#include "ipc/SharedMemNodeImpl.h"
#include "ipc/SharedMemPool.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/IpcCleanup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

namespace {

using namespace Vantel::Orbel;
using namespace OrbelTest;

using Configs = std::vector<SharedMemDomain::PoolConfig>;

long threadCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                         std::filesystem::directory_iterator());
}

/// Another process of the domain.
class Member {
public:
    Member(const std::string& domain, int blocks)
        : mProcess("DomainHelper", {domain, std::to_string(blocks)}) {}
    std::string ask(const std::string& command) {
        std::string answer;
        return mProcess.writeLine(command) && mProcess.readLine(answer) ? answer : "no answer";
    }
    HelperProcess& process() { return mProcess; }

private:
    HelperProcess mProcess;
};

class SharedMemDomainTest : public testing::Test {
protected:
    std::shared_ptr<SharedDomainImpl> make() { return std::make_shared<SharedDomainImpl>(mName); }
    std::shared_ptr<SharedDomainImpl> joined(const Configs& configs = {}) {
        auto domain = make();
        domain->setPoolConfigs(configs);
        EXPECT_TRUE(domain->init(Json::objectValue));
        return domain;
    }
    /// The segment as any process sees it.
    std::shared_ptr<DomainSegment> segment() { return DomainSegment::open(mName); }
    int freeSlots() {
        const auto held = segment();
        int count = 0;
        for (unsigned int slot = 0; slot < kMaxNodes; ++slot) {
            count += held->node(slot).state.load() == NodeState::Free ? 1 : 0;
        }
        return count;
    }

    LogCapture mLog;
    IpcCleanup mCleanup;
    const std::string mName = mCleanup.domain("domain");
};

TEST_F(SharedMemDomainTest, OneObjectANameInAProcess) {
    const auto first = SharedMemDomain::instance(mName);
    EXPECT_EQ(SharedMemDomain::instance(mName), first);
    EXPECT_NE(SharedMemDomain::instance(mCleanup.domain("other")), first);
    EXPECT_EQ(first->domainName(), mName);
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/shmipc_domain_" + mName)) << "attached already";
}

TEST_F(SharedMemDomainTest, RacingFirstProcessesMakeThePoolsOnce) {
    std::vector<std::unique_ptr<Member>> members;
    for (int i = 0; i < 4; ++i) {
        members.push_back(std::make_unique<Member>(mName, 5 + i));
    }
    for (auto& member : members) {
        ASSERT_TRUE(member->process().writeLine("init"));
    }
    for (auto& member : members) {
        EXPECT_TRUE(member->process().waitForLine("1"));
    }
    EXPECT_EQ(segment()->header().poolCount.load(), 1u);
    const std::string blocks = members[0]->ask("pool");
    for (auto& member : members) {
        EXPECT_EQ(member->ask("pool"), blocks);
    }
}

TEST_F(SharedMemDomainTest, ADomainKeepsThePoolsOfItsFirstProcess) {
    const auto first = joined({{"a", 128, 8, 3}, {"", 64, 0, 1}, {"b", 0, 0, 1}, {"c", 64, 0, 2}});
    EXPECT_EQ(mLog.count("Invalid pool config"), 2) << "bad configs are skipped, not fatal";
    const auto second = joined({{"a", 999, 0, 9}, {"z", 32, 0, 1}});
    EXPECT_TRUE(mLog.has("Pools already initialized, loading existing pools"));
    EXPECT_EQ(second->getPoolInfo(0)->blockSize.load(), 128u);
    EXPECT_EQ(storedName(second->getPoolInfo(1)->name), "c");
    EXPECT_EQ(second->getPool(2), nullptr);
    EXPECT_EQ(second->getPool(kMaxPools), nullptr);
    EXPECT_EQ(second->getPoolInfo(kMaxPools), nullptr);

    const auto reused = second->createPool("a", 7, 7, 7);
    ASSERT_TRUE(reused);
    EXPECT_EQ(reused->blockSize(), 128u) << "a pool is what it is";
    EXPECT_EQ(reused, second->getPool(0));
    EXPECT_EQ(first->createPool("a", 0, 0, 1), nullptr);

    // A pool that another process makes later is found by the table, and once by all threads.
    const auto made = second->createPool("later", 4096, 16, 2);
    ASSERT_TRUE(made);
    std::vector<std::shared_ptr<SharedMemPool>> found(4);
    std::vector<std::thread> threads;
    for (auto& pool : found) {
        threads.emplace_back([&] { pool = first->getPool(2); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const auto& pool : found) {
        EXPECT_TRUE(pool && pool == found[0]);
    }
    first->deInit();
    second->deInit();
}

TEST_F(SharedMemDomainTest, TheSmallestPoolThatFitsIsFound) {
    const auto domain = joined(
        {{"wide", 256, 64, 1}, {"narrow", 128, 0, 1}, {"twin", 256, 8, 1}, {"big", 4096, 64, 1}});
    const struct {
        unsigned int size, extraSize;
        int poolId;
    } cases[] = {
        {0, 0, 1},    {128, 0, 1},   {128, 1, 0},  {129, 0, 0},   {256, 8, 0},
        {256, 64, 0}, {256, 65, -1}, {257, 64, 3}, {4096, 64, 3}, {4097, 0, -1},
    };
    for (const auto& c : cases) {
        const auto pool = domain->findPoolBySize(c.size, c.extraSize);
        EXPECT_EQ(pool ? static_cast<int>(pool->poolId()) : -1, c.poolId)
            << c.size << " + " << c.extraSize;
    }
    domain->deInit();
    EXPECT_EQ(domain->findPoolBySize(0, 0), nullptr);
}

TEST_F(SharedMemDomainTest, OnlyTheFirst63CharactersOfAPoolNameCount) {
    const auto domain = joined();
    const std::string longName(70, 'p');
    const auto pool = domain->createPool(longName, 64, 0, 1);
    ASSERT_TRUE(pool);
    EXPECT_EQ(storedName(domain->getPoolInfo(0)->name), std::string(63, 'p'));
    EXPECT_EQ(domain->createPool(std::string(63, 'p') + "q", 64, 0, 1), pool);
    EXPECT_TRUE(std::filesystem::exists("/dev/shm/shmipc_pool_" + mName + "_" + longName));
    domain->deInit();
}

TEST_F(SharedMemDomainTest, The33rdPoolFailsAndLeavesTheOthers) {
    Configs configs;
    for (int i = 0; i < 33; ++i) {
        configs.push_back({"p" + std::to_string(i), 16, 0, 1});
    }
    const auto domain = make();
    domain->setPoolConfigs(configs);
    EXPECT_FALSE(domain->init(Json::objectValue));
    EXPECT_TRUE(mLog.has("No free pool slot available (max=32)"));
    EXPECT_TRUE(mLog.has("Failed to create pool p32"));
    EXPECT_TRUE(mLog.has("Failed to initialize pools"));
    EXPECT_EQ(domain->getEventLoop(), nullptr);
    EXPECT_FALSE(domain->deInit());

    EXPECT_TRUE(domain->init(Json::objectValue)) << "the pools are there now";
    EXPECT_TRUE(domain->getPool(31));
    domain->deInit();
}

TEST_F(SharedMemDomainTest, AFullNodeTableIsRefused) {
    const auto first = joined();
    const auto second = joined();
    for (unsigned int i = 0; i < kMaxNodes; ++i) {
        ASSERT_TRUE(first->createNode("n" + std::to_string(i)));
    }
    EXPECT_EQ(first->createNode("n32"), nullptr);
    EXPECT_TRUE(mLog.has("max node count 32 reached for node n32"));
    EXPECT_EQ(second->createNode("other"), nullptr);
    EXPECT_TRUE(mLog.has("no free slot for new node other"));

    EXPECT_TRUE(first->destroyNode("n7")) << "never initialized: its slot must come back too";
    EXPECT_TRUE(second->createNode("other"));
    second->deInit();
    first->deInit();
    EXPECT_EQ(freeSlots(), static_cast<int>(kMaxNodes));
}

TEST_F(SharedMemDomainTest, ANodeMadeAgainUnderItsNameIsAnother) {
    const auto domain = joined();
    EXPECT_FALSE(domain->destroyNode("node"));
    EXPECT_TRUE(mLog.has("destroy node node not found"));
    const auto node = domain->createNode("node");
    EXPECT_EQ(domain->createNode("node"), node);
    ASSERT_TRUE(node->init());
    const unsigned long id = node->nodeId();
    const auto slot = std::static_pointer_cast<SharedMemNodeImpl>(node)->slot();
    const auto tag = std::static_pointer_cast<SharedMemNodeImpl>(node)->tag();
    EXPECT_TRUE(domain->checkNodeAlive(id));
    EXPECT_TRUE(domain->checkNodeAlive(slot, tag));
    EXPECT_FALSE(domain->checkNodeAlive(slot, tag == 1 ? 2 : 1));
    EXPECT_FALSE(domain->checkNodeAlive(slot, 0));
    EXPECT_FALSE(domain->checkNodeAlive(kMaxNodes, tag));
    EXPECT_FALSE(domain->checkNodeAlive(0ul));
    EXPECT_TRUE(domain->getReaderProxy(id));
    EXPECT_TRUE(domain->getWriterProxy(id));

    EXPECT_TRUE(domain->destroyNode("node"));
    EXPECT_FALSE(domain->checkNodeAlive(id));
    EXPECT_EQ(domain->getReaderProxy(id), nullptr) << "a proxy of the old node is left";
    EXPECT_EQ(domain->getWriterProxy(id), nullptr) << "a proxy of the old node is left";
    EXPECT_EQ(domain->getNodeInfo(id), nullptr);
    const auto again = domain->createNode("node");
    ASSERT_TRUE(again && again->init());
    EXPECT_NE(again->nodeId(), id);
    EXPECT_EQ(node->nodeId(), 0u) << "the old handle must not speak for the new node";
    EXPECT_FALSE(node->deInit());
    EXPECT_TRUE(domain->checkNodeAlive(again->nodeId()));
    domain->deInit();
}

TEST_F(SharedMemDomainTest, LeavingEndsEverythingOnceAndCanBeFollowedByJoining) {
    const long threads = threadCount();
    const auto domain = make();
    EXPECT_FALSE(domain->deInit());
    EXPECT_EQ(domain->createNode("early"), nullptr);
    EXPECT_EQ(domain->createPool("early", 1, 0, 1), nullptr);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        ASSERT_TRUE(domain->init(Json::objectValue));
        const EventLoop* const loop = domain->getEventLoop();
        ASSERT_TRUE(domain->init(Json::objectValue));
        EXPECT_EQ(domain->getEventLoop(), loop) << "a second init() replaced the running loop";
        const auto node = domain->createNode("node");
        ASSERT_TRUE(node->init());
        EXPECT_TRUE(domain->check());

        std::atomic<int> torn{0};
        std::vector<std::thread> leavers;
        for (int i = 0; i < 3; ++i) {
            leavers.emplace_back([&] { torn += domain->deInit() ? 1 : 0; });
        }
        for (auto& leaver : leavers) {
            leaver.join();
        }
        EXPECT_EQ(torn, 1);
        EXPECT_TRUE(waitFor([&] { return threadCount() == threads; }));
        EXPECT_EQ(node->nodeId(), 0u) << "the table must stay mapped for a node in hand";
        EXPECT_FALSE(node->deInit());
        EXPECT_EQ(node->newReadChannel("x"), nullptr);
        EXPECT_EQ(domain->getEventLoop(), nullptr);
        EXPECT_EQ(domain->createNode("late"), nullptr);
        EXPECT_EQ(freeSlots(), static_cast<int>(kMaxNodes));
    }
}

TEST_F(SharedMemDomainTest, InitAndLeaveInARowRacesWithNoCheck) {
    const auto domain = make();
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(domain->init(Json::objectValue));
        ASSERT_TRUE(domain->deInit());
    }
}

TEST_F(SharedMemDomainTest, WrongConfigurationsAreRefused) {
    const auto domain = make();
    const char* const texts[] = {"[]", "\"text\"", "{\"priority\": \"high\"}", "{\"realtime\": {}}",
                                 "{\"attachCore\": []}"};
    for (const char* text : texts) {
        Json::Value config;
        std::istringstream(text) >> config;
        EXPECT_FALSE(domain->init(config)) << text;
    }
    Json::Value config;
    std::istringstream("{\"attachCore\": 0, \"priority\": null, \"other\": []}") >> config;
    EXPECT_TRUE(domain->init(config));
    domain->deInit();
}

TEST_F(SharedMemDomainTest, ASegmentThatIsNoneIsRefusedAndLeftAlone) {
    const std::string path = "/shmipc_domain_" + mName;
    const struct {
        const char* why;
        off_t size;
        uint32_t magic;
    } cases[] = {{"empty", 0, 0},
                 {"one byte short", sizeof(DomainHeader) - 1, kDomainMagic},
                 {"another's magic", sizeof(DomainHeader), kPoolMagic}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        UniqueFd object(shm_open(path.c_str(), O_CREAT | O_RDWR, 0600));
        ASSERT_EQ(ftruncate(object.get(), c.size), 0);
        if (c.size > 0) {
            ASSERT_EQ(pwrite(object.get(), &c.magic, sizeof c.magic, 0), 4);
        }
        EXPECT_FALSE(make()->init(Json::objectValue));
        uint32_t magic = 0;
        EXPECT_EQ(pread(object.get(), &magic, sizeof magic, 0), c.size > 0 ? 4 : 0);
        EXPECT_EQ(magic, c.magic);
        shm_unlink(path.c_str());
    }
    // The process mutex must have been left on each of these ways.
    const auto domain = joined();
    domain->deInit();
}

TEST_F(SharedMemDomainTest, ABrokenPipeEndsNoProcessButAHandlerStays) {
    struct sigaction before = {};
    sigaction(SIGPIPE, nullptr, &before);
    signal(SIGPIPE, SIG_DFL);
    joined()->deInit();
    EXPECT_EQ(signal(SIGPIPE, [](int) {}), SIG_IGN);
    joined()->deInit();
    EXPECT_NE(signal(SIGPIPE, SIG_DFL), SIG_IGN);
    sigaction(SIGPIPE, &before, nullptr);
}

// ------------------------------------------------------------------------------ read callbacks

/// Counts runs and ends; reports its end to the domain like each task does.
class CountingTask : public IThreadTask {
public:
    CountingTask(SharedDomainImpl& domain, std::atomic<int>& runs, std::atomic<int>& ends)
        : mDomain(domain), mRuns(runs), mEnds(ends) {}
    ~CountingTask() override {
        ++mEnds;
        mDomain.onAsyncTaskDone();
    }
    void run() override {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ++mRuns;
    }

private:
    SharedDomainImpl& mDomain;
    std::atomic<int>& mRuns;
    std::atomic<int>& mEnds;
};

TEST_F(SharedMemDomainTest, LeavingWaitsForTheCallbacksThatWereTaken) {
    const auto domain = joined();
    std::atomic<int> runs{0};
    std::atomic<int> ends{0};
    int taken = 0;
    for (int i = 0; i < 100; ++i) {
        taken += domain->postAsyncTask(new CountingTask(*domain, runs, ends)) ? 1 : 0;
    }
    EXPECT_EQ(taken, 100);
    EXPECT_FALSE(domain->postAsyncTask(nullptr));
    EXPECT_TRUE(domain->deInit());
    EXPECT_EQ(runs, 100);
    EXPECT_FALSE(domain->postAsyncTask(new CountingTask(*domain, runs, ends)));
    EXPECT_EQ(ends, 101) << "a refused task must be deleted";
    EXPECT_EQ(runs, 100);
    EXPECT_FALSE(mLog.has("underflow"));
    domain->onAsyncTaskDone();
    EXPECT_TRUE(mLog.has("callback task counter underflow, domain=" + mName));
}

TEST_F(SharedMemDomainTest, PostingRacesWithLeaving) {
    const auto domain = make();
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(domain->init(Json::objectValue));
        std::atomic<int> runs{0};
        std::atomic<int> ends{0};
        std::atomic<int> taken{0};
        std::thread poster([&] {
            for (int i = 0; i < 200; ++i) {
                taken += domain->postAsyncTask(new CountingTask(*domain, runs, ends)) ? 1 : 0;
            }
        });
        ASSERT_TRUE(waitFor([&] { return taken > 10; }));
        EXPECT_TRUE(domain->deInit());
        poster.join();
        EXPECT_EQ(runs, taken);
        EXPECT_EQ(ends, 200);
    }
}

// ---------------------------------------------------------------------- death of other processes

TEST_F(SharedMemDomainTest, AnotherProcessTakesOverWhenTheMasterIsKilled) {
    Member master(mName, 2);
    ASSERT_EQ(master.ask("init"), "1");
    const unsigned long id = std::stoul(master.ask("node first"));
    ASSERT_NE(id, 0u);
    const auto domain = joined();
    const auto held = segment();
    EXPECT_EQ(held->header().masterPid.load(), static_cast<uint32_t>(master.process().pid()));
    EXPECT_TRUE(domain->checkNodeAlive(id));
    EXPECT_TRUE(domain->getReaderProxy(id));

    master.process().killAndReap();
    EXPECT_TRUE(waitFor([&] { return !domain->checkNodeAlive(id); }));
    EXPECT_EQ(held->header().masterPid.load(), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(freeSlots(), static_cast<int>(kMaxNodes));
    EXPECT_TRUE(mLog.has("Node first (pid="));
    EXPECT_TRUE(waitFor([&] { return domain->getReaderProxy(id) == nullptr; }));
    domain->deInit();
}

TEST_F(SharedMemDomainTest, ADomainGoesOnWithWhatACrashedRunLeft) {
    {
        Member first(mName, 3);
        Member second(mName, 0);
        ASSERT_EQ(first.ask("init"), "1");
        ASSERT_EQ(second.ask("init"), "1");
        ASSERT_NE(first.ask("node a"), "0");
        ASSERT_NE(second.ask("node b"), "0");
        ASSERT_NE(second.ask("claim c"), "0");
        EXPECT_EQ(freeSlots(), static_cast<int>(kMaxNodes) - 3);
    }  // both killed
    const auto domain = joined({{"ignored", 1, 0, 1}});
    EXPECT_EQ(segment()->header().masterPid.load(), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(freeSlots(), static_cast<int>(kMaxNodes)) << "init() makes the first check itself";
    EXPECT_EQ(domain->getPool(0)->blockCount(), 3u);
    const auto node = domain->createNode("a");
    EXPECT_TRUE(node->init()) << "the socket file of the dead node is in the way";
    domain->deInit();
}

TEST_F(SharedMemDomainTest, SlotsWhoseOwnerDiedInsideTheLockAndForgedOnesComeBack) {
    const auto domain = joined();
    const auto held = segment();
    Member live(mName, 0);
    ASSERT_EQ(live.ask("init"), "1");
    const unsigned long liveId = std::stoul(live.ask("node live"));
    const struct {
        NodeState state;
        int pid;
    } forged[] = {{NodeState::Claimed, -1},
                  {NodeState::Closing, -1},
                  {NodeState::Alive, -7},
                  {NodeState::Alive, 0},
                  {static_cast<NodeState>(77), -1}};
    {
        const DomainSegment::Lock lock(*held);
        for (const auto& entry : forged) {
            const auto slot = held->claimSlot();
            ASSERT_TRUE(slot);
            held->fillSlot(*slot, "forged", 1234 + *slot);
            std::memset(held->node(*slot).name, 'x', kNameSize);  // without an end
            held->node(*slot).pid.store(entry.pid);
            held->node(*slot).lastCheckTime.store(0);
            held->node(*slot).state.store(entry.state);
        }
    }
    EXPECT_TRUE(waitFor([&] { return freeSlots() == static_cast<int>(kMaxNodes) - 1; }));
    EXPECT_TRUE(domain->checkNodeAlive(liveId));
    for (const uint32_t forgedMaster : {0u, 0xFFFFFFFFu}) {
        held->header().masterPid.store(forgedMaster);
        EXPECT_TRUE(waitFor([&] {
            const uint32_t master = held->header().masterPid.load();
            return master == static_cast<uint32_t>(getpid()) ||
                   master == static_cast<uint32_t>(live.process().pid());
        })) << forgedMaster;
    }
    domain->deInit();
}

TEST_F(SharedMemDomainTest, ExitWithEverythingAliveIsInGoodOrder) {
    for (const char* last : {"pool", "exit-in-loop", "exit-in-callback"}) {
        SCOPED_TRACE(last);
        Member member(mName, 1);
        ASSERT_EQ(member.ask("init"), "1");
        ASSERT_NE(member.ask("node a"), "0");
        ASSERT_NE(member.ask(last), "0");
        member.process().closeInput();
        EXPECT_EQ(member.process().wait(), 0);
    }
    EXPECT_TRUE(joined()->deInit());
    EXPECT_EQ(freeSlots(), static_cast<int>(kMaxNodes));
}

TEST_F(SharedMemDomainTest, LeavingInOneOfItsOwnThreadsIsAssertedNotWaitedForEver) {
    for (const char* command : {"leave-in-loop", "leave-in-callback"}) {
        SCOPED_TRACE(command);
        Member member(mName, 0);
        ASSERT_EQ(member.ask("init"), "1");
        member.process().writeLine(command);
        const int status = member.process().wait();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    }
}

TEST_F(SharedMemDomainTest, AControlThreadThatCannotStartFailsTheJoining) {
    Member member(mName, 0);
    ASSERT_EQ(member.ask("drop"), "done");
    if (member.ask("realtime") == "1") {
        GTEST_SKIP() << "this machine grants first-in-first-out scheduling to everybody";
    }
    EXPECT_TRUE(joined()->deInit()) << "the process mutex was not left";
    EXPECT_EQ(member.ask("init"), "1");
    EXPECT_NE(member.ask("node a"), "0");
}

}  // namespace
