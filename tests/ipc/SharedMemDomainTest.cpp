#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>

#include <filesystem>
#include <sstream>
#include <thread>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/IThreadPool.h"
#include "tests/ipc/DomainFixture.h"
#include "tests/ipc/RawSegment.h"
#include "tests/support/HelperProcess.h"

namespace OrbelTest {
namespace {

long threadCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                         std::filesystem::directory_iterator());
}

class SharedMemDomainTest : public DomainFixture {
protected:
    /// Another process of the domain: asked to "init" it, for a "node NAME", and so on.
    std::unique_ptr<HelperProcess> member(int blocks = 0) const {
        return std::make_unique<HelperProcess>(
            "DomainHelper", std::vector<std::string>{mDomainName, std::to_string(blocks)});
    }
    std::unique_ptr<HelperProcess> joinedMember(int blocks = 0) const {
        auto process = member(blocks);
        EXPECT_EQ(process->ask("init"), "1");
        return process;
    }
};

TEST_F(SharedMemDomainTest, OneObjectANameInAProcess) {
    const auto first = SharedMemDomain::instance(mDomainName);
    EXPECT_EQ(SharedMemDomain::instance(mDomainName), first);
    EXPECT_NE(SharedMemDomain::instance(mCleanup.domain("other")), first);
    EXPECT_EQ(first->domainName(), mDomainName);
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/shmipc_domain_" + mDomainName))
        << "attached already";
}

// ----------------------------------------------------------------------------------------- pools

TEST_F(SharedMemDomainTest, RacingFirstProcessesMakeThePoolsOnce) {
    std::vector<std::unique_ptr<HelperProcess>> members;
    for (int i = 0; i < 4; ++i) {
        members.push_back(member(5 + i));
    }
    for (const auto& process : members) {
        ASSERT_TRUE(process->writeLine("init"));
    }
    for (const auto& process : members) {
        EXPECT_TRUE(process->waitForLine("1"));
    }
    EXPECT_EQ(segment()->header().poolCount.load(), 1u);
    const std::string blocks = members[0]->ask("pool");
    for (const auto& process : members) {
        EXPECT_EQ(process->ask("pool"), blocks);
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

    // A pool that another process makes later is found by the table, and once by all threads. Its
    // name counts up to 63 characters.
    const std::string name(70, 'p');
    const auto made = second->createPool(name, 4096, 16, 2);
    ASSERT_TRUE(made);
    EXPECT_EQ(storedName(second->getPoolInfo(2)->name), std::string(63, 'p'));
    EXPECT_EQ(second->createPool(std::string(63, 'p') + "q", 64, 0, 1), made);
    EXPECT_TRUE(std::filesystem::exists("/dev/shm/shmipc_pool_" + mDomainName + "_" + name));
    std::vector<std::shared_ptr<SharedMemPool>> found(4);
    std::vector<std::jthread> threads;
    for (auto& pool : found) {
        threads.emplace_back([&] { pool = first->getPool(2); });
    }
    threads.clear();
    for (const auto& pool : found) {
        EXPECT_TRUE(pool && pool == found[0]);
    }
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

// ----------------------------------------------------------------------------------------- nodes

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
    EXPECT_EQ(usedSlots(), 0u);
}

TEST_F(SharedMemDomainTest, ANodeMadeAgainUnderItsNameIsAnother) {
    const auto domain = joined();
    EXPECT_FALSE(domain->destroyNode("node"));
    EXPECT_TRUE(mLog.has("destroy node node not found"));
    const auto node = aliveNode(*domain, "node");
    EXPECT_EQ(domain->createNode("node"), node);
    const unsigned long id = node->nodeId();
    const unsigned int slot = node->slot();
    const unsigned int tag = node->tag();
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
    const auto again = aliveNode(*domain, "node");
    EXPECT_NE(again->nodeId(), id);
    EXPECT_EQ(node->nodeId(), 0u) << "the old handle must not speak for the new node";
    EXPECT_FALSE(node->deInit());
    EXPECT_TRUE(domain->checkNodeAlive(again->nodeId()));
}

// --------------------------------------------------------------------------- joining and leaving

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
        const auto node = aliveNode(*domain, "node");
        EXPECT_TRUE(domain->check());

        std::atomic<int> torn{0};
        std::vector<std::jthread> leavers;
        for (int i = 0; i < 3; ++i) {
            leavers.emplace_back([&] { torn += domain->deInit() ? 1 : 0; });
        }
        leavers.clear();
        EXPECT_EQ(torn, 1);
        EXPECT_TRUE(waitFor([&] { return threadCount() == threads; }));
        EXPECT_EQ(node->nodeId(), 0u) << "the table must stay mapped for a node in hand";
        EXPECT_FALSE(node->deInit());
        EXPECT_EQ(node->newReadChannel("x"), nullptr);
        EXPECT_EQ(domain->getEventLoop(), nullptr);
        EXPECT_EQ(domain->createNode("late"), nullptr);
        EXPECT_EQ(usedSlots(), 0u);
    }
    for (int i = 0; i < 50; ++i) {  // in a row, each before the first check
        ASSERT_TRUE(domain->init(Json::objectValue));
        ASSERT_TRUE(domain->deInit());
    }
}

TEST_F(SharedMemDomainTest, WrongConfigurationsAreRefused) {
    const auto domain = make();
    const struct {
        const char* text;
        bool joins;
    } cases[] = {
        {"[]", false},
        {"\"text\"", false},
        {"{\"priority\": \"high\"}", false},
        {"{\"realtime\": {}}", false},
        {"{\"attachCore\": []}", false},
        {"{\"attachCore\": 0, \"priority\": null, \"other\": []}", true},
    };
    for (const auto& c : cases) {
        Json::Value config;
        std::istringstream(c.text) >> config;
        EXPECT_EQ(domain->init(config), c.joins) << c.text;
    }
    domain->deInit();
}

TEST_F(SharedMemDomainTest, ASegmentThatIsNoneIsRefusedAndLeftAlone) {
    const std::string path = "/shmipc_domain_" + mDomainName;
    const struct {
        const char* why;
        size_t size;
        uint32_t magic;
    } cases[] = {{"one byte", 1, 0},
                 {"one byte short", sizeof(DomainHeader) - 1, kDomainMagic},
                 {"another's magic", sizeof(DomainHeader), kPoolMagic}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        ASSERT_TRUE(RawSegment::make(path, c.size));
        RawSegment raw(path);
        raw.at<uint32_t>(0) = c.magic;
        const std::string before = raw.bytes();
        EXPECT_FALSE(make()->init(Json::objectValue));
        EXPECT_EQ(raw.bytes(), before);
        EXPECT_TRUE(raw.remove());
    }
    joined();  // the process mutex was left on each of these ways
}

TEST_F(SharedMemDomainTest, ABrokenPipeEndsNoProcessButAHandlerStays) {
    struct sigaction before = {};
    sigaction(SIGPIPE, nullptr, &before);
    signal(SIGPIPE, SIG_DFL);
    joined();
    EXPECT_EQ(signal(SIGPIPE, [](int) {}), SIG_IGN);
    joined();
    EXPECT_NE(signal(SIGPIPE, SIG_DFL), SIG_IGN);
    sigaction(SIGPIPE, &before, nullptr);
}

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

TEST_F(SharedMemDomainTest, LeavingWaitsForTheCallbacksThatWereTakenAndDeletesTheOthers) {
    const auto domain = make();
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(domain->init(Json::objectValue));
        std::atomic<int> runs{0};
        std::atomic<int> ends{0};
        std::atomic<int> taken{0};
        {
            const std::jthread poster([&] {
                for (int i = 0; i < 200; ++i) {
                    taken += domain->postAsyncTask(new CountingTask(*domain, runs, ends)) ? 1 : 0;
                }
            });
            ASSERT_TRUE(waitFor([&] { return taken > 10; }));
            EXPECT_TRUE(domain->deInit());
            EXPECT_FALSE(domain->postAsyncTask(new CountingTask(*domain, runs, ends)));
        }
        EXPECT_EQ(runs, taken);
        EXPECT_EQ(ends, 201);
    }
    EXPECT_FALSE(domain->postAsyncTask(nullptr));
    EXPECT_FALSE(mLog.has("underflow"));
    domain->onAsyncTaskDone();
    EXPECT_TRUE(mLog.has("callback task counter underflow, domain=" + mDomainName));
}

// ---------------------------------------------------------------------- death of other processes

TEST_F(SharedMemDomainTest, AnotherProcessTakesOverWhenTheMasterIsKilled) {
    const auto master = joinedMember(2);
    const unsigned long id = std::stoul(master->ask("node first"));
    ASSERT_NE(id, 0u);
    const auto domain = joined();
    const auto table = segment();
    EXPECT_EQ(table->header().masterPid.load(), static_cast<uint32_t>(master->pid()));
    EXPECT_TRUE(domain->checkNodeAlive(id));
    EXPECT_TRUE(domain->getReaderProxy(id));

    master->killAndReap();
    EXPECT_TRUE(waitFor([&] { return !domain->checkNodeAlive(id); }));
    EXPECT_EQ(table->header().masterPid.load(), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(usedSlots(), 0u);
    EXPECT_TRUE(waitFor([&] { return mLog.has("Node first (pid="); }));  // once out of the lock
    EXPECT_TRUE(waitFor([&] { return domain->getReaderProxy(id) == nullptr; }));
}

TEST_F(SharedMemDomainTest, ADomainGoesOnWithWhatACrashedRunLeft) {
    {
        const auto first = joinedMember(3);
        const auto second = joinedMember();
        ASSERT_NE(first->ask("node a"), "0");
        ASSERT_NE(second->ask("node b"), "0");
        ASSERT_NE(second->ask("claim c"), "0");
        EXPECT_EQ(usedSlots(), 3u);
    }  // both killed
    const auto domain = joined({{"ignored", 1, 0, 1}});
    EXPECT_EQ(segment()->header().masterPid.load(), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(usedSlots(), 0u) << "init() makes the first check itself";
    EXPECT_EQ(domain->getPool(0)->blockCount(), 3u);
    aliveNode(*domain, "a");  // the socket file of the dead node is in the way
}

TEST_F(SharedMemDomainTest, SlotsWhoseOwnerDiedInsideTheLockAndForgedOnesComeBack) {
    const auto domain = joined();
    const auto table = segment();
    const auto live = joinedMember();
    const unsigned long liveId = std::stoul(live->ask("node live"));
    const struct {
        NodeState state;
        int pid;
    } forged[] = {{NodeState::Claimed, -1},
                  {NodeState::Closing, -1},
                  {NodeState::Alive, -7},
                  {NodeState::Alive, 0},
                  {static_cast<NodeState>(77), -1}};
    {
        const DomainSegment::Lock lock(*table);
        for (const auto& entry : forged) {
            const auto slot = table->claimSlot();
            ASSERT_TRUE(slot);
            table->fillSlot(*slot, "forged", 1234 + *slot);
            NodeInfo& node = table->node(*slot);
            std::memset(node.name, 'x', kNameSize);  // without an end
            node.pid.store(entry.pid);
            node.lastCheckTime.store(0);
            node.state.store(entry.state);
        }
    }
    EXPECT_TRUE(waitFor([&] { return usedSlots() == 1; }));
    EXPECT_TRUE(domain->checkNodeAlive(liveId));
    for (const uint32_t forgedMaster : {0u, 0xFFFFFFFFu}) {
        table->header().masterPid.store(forgedMaster);
        EXPECT_TRUE(waitFor([&] {
            const auto master = static_cast<pid_t>(table->header().masterPid.load());
            return master == getpid() || master == live->pid();
        })) << forgedMaster;
    }
}

TEST_F(SharedMemDomainTest, ExitWithEverythingAliveIsInGoodOrder) {
    for (const std::string last : {"pool", "exit-in-loop", "exit-in-callback"}) {
        SCOPED_TRACE(last);
        const auto process = joinedMember(1);
        ASSERT_NE(process->ask("node a"), "0");
        ASSERT_NE(process->ask(last), "0");
        if (last == "pool") {  // the others end by themselves, and two exits at once are undefined
            process->closeInput();
        }
        EXPECT_EQ(process->wait(), 0);
    }
    joined();
    EXPECT_EQ(usedSlots(), 0u);
}

TEST_F(SharedMemDomainTest, LeavingInOneOfItsOwnThreadsIsAssertedNotWaitedForEver) {
    for (const char* command : {"leave-in-loop", "leave-in-callback"}) {
        SCOPED_TRACE(command);
        const auto process = joinedMember();
        process->writeLine(command);
        const int status = process->wait();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    }
}

TEST_F(SharedMemDomainTest, AControlThreadThatCannotStartFailsTheJoining) {
    const auto process = member();
    ASSERT_EQ(process->ask("drop"), "done");
    if (process->ask("realtime") == "1") {
        GTEST_SKIP() << "this machine grants first-in-first-out scheduling to everybody";
    }
    joined();  // the process mutex was left
    EXPECT_EQ(process->ask("init"), "1");
    EXPECT_NE(process->ask("node a"), "0");
}

}  // namespace
}  // namespace OrbelTest
