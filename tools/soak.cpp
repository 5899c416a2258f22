// ./run soak [SECONDS] [SEED]: writers and readers of several domains, joined, left and killed at
// random, with every payload verified. At the end no block is lost, no party stuck, and this
// process, which was a member of all domains throughout, holds no descriptor or thread more than
// before.

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <vector>

#include "ipc/SegmentLayout.h"
#include "ipc/SharedMemory.h"
#include "ipc/StateWord.h"
#include "tests/support/IpcCleanup.h"
#include "tools/SoakParty.h"

namespace Soak {
namespace {

constexpr int kDomains = 3;
constexpr int kChannels = 2;  // in each domain
constexpr int kWritersPerChannel = 1;
constexpr int kReadersPerChannel = 2;

struct Names {
    std::string domain;
    std::vector<std::string> channels;
};

struct Place {
    std::string role;
    std::string domain;
    std::string channel;
};

/// A child process in one of the places; its standard output is ours.
class Party {
public:
    Party(const Place& place, uint64_t seed) {
        int input[2];
        if (pipe2(input, O_CLOEXEC) != 0) {
            fail("pipe");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], 0);
        std::string words[] = {"/proc/self/exe", place.role, place.domain, place.channel,
                               std::to_string(seed)};
        char* argv[std::size(words) + 1] = {};
        for (size_t i = 0; i < std::size(words); ++i) {
            argv[i] = words[i].data();
        }
        if (posix_spawn(&mPid, argv[0], &actions, nullptr, argv, environ) != 0) {
            fail("posix_spawn");
        }
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        mInput = input[1];
    }
    Party(const Party&) = delete;
    Party& operator=(const Party&) = delete;
    ~Party() { end(true); }

    bool alive() {
        int status = 0;
        if (mPid > 0 && waitpid(mPid, &status, WNOHANG) == mPid) {
            std::printf("process %d ended with status %d\n", mPid, status);
            mPid = -1;
        }
        return mPid > 0;
    }

    /// By kill -9, or by asking: then it must end in good order within 30 seconds.
    bool end(bool byForce) {
        if (mInput >= 0) {
            close(mInput);
            mInput = -1;
        }
        if (mPid <= 0) {
            return byForce;
        }
        if (byForce) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
            mPid = -1;
            return true;
        }
        for (int i = 0; i < 30000; ++i) {
            int status = 0;
            if (waitpid(mPid, &status, WNOHANG) == mPid) {
                mPid = -1;
                return status == 0;
            }
            usleep(1000);
        }
        std::printf("process %d is stuck\n", mPid);
        return false;
    }

private:
    pid_t mPid = -1;
    int mInput = -1;
};

size_t countEntries(const char* directory) {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        static_cast<void>(entry);
        ++count;
    }
    return count;
}

/// Looks at a pool segment as a stranger does: how many blocks are not free.
int busyBlocks(const std::string& domain, const std::string& pool) {
    using namespace Vantel::Orbel;
    const auto memory = SharedMemory::create("/shmipc_pool_" + domain + "_" + pool);
    if (!memory->openOnly()) {
        fail("pool segment " + pool);
    }
    auto* base = static_cast<char*>(memory->baseAddress());
    const auto* header = reinterpret_cast<const PoolHeader*>(base);
    const PoolGeometry geometry{header->blockSize, header->extraSize, header->blockCount};
    int busy = 0;
    for (uint32_t i = 0; i < geometry.blockCount; ++i) {
        const auto* block = reinterpret_cast<const BlockHeader*>(base + geometry.headerOffset(i));
        busy += block->status.stateWord().state != BlockState::Free ? 1 : 0;
    }
    memory->reset();
    return busy;
}

/// This process's own membership of one domain: a node with a reader on each channel.
class Resident {
public:
    Resident(const Names& names, bool sync) : mDomain(join(names.domain)) {
        const auto node = mDomain->createNode("resident");
        if (node == nullptr || !node->init()) {
            fail("node of the resident");
        }
        for (const std::string& name : names.channels) {
            auto channel = node->newReadChannel(name);
            channel->setSyncMode(sync);
            if (!channel->init() ||
                !channel->open([this](std::shared_ptr<SharedMemBuffer>& b) { mSamples(b); })) {
                fail("channel of the resident");
            }
        }
    }
    Resident(const Resident&) = delete;
    Resident& operator=(const Resident&) = delete;
    ~Resident() { mDomain->deInit(); }

    Reader& samples() { return mSamples; }

private:
    Reader mSamples{42};
    std::shared_ptr<SharedMemDomain> mDomain;
};

class Run {
public:
    Run(int seconds, uint64_t seed) : mSeconds(seconds), mRandom(seed) {
        for (int d = 0; d < kDomains; ++d) {
            mDomains.push_back({mCleanup.domain("soak"), {}});
            const std::string& domain = mDomains.back().domain;
            for (int c = 0; c < kChannels; ++c) {
                const std::string channel = mCleanup.channel("soak");
                mDomains.back().channels.push_back(channel);
                for (int i = 0; i < kWritersPerChannel; ++i) {
                    mPlaces.push_back({"writer", domain, channel});
                }
                for (int i = 0; i < kReadersPerChannel; ++i) {
                    mPlaces.push_back({"reader", domain, channel});
                }
            }
        }
        mParties.resize(mPlaces.size());
    }

    bool pass() {
        // A first domain warms up what the library makes once a process and keeps.
        { Resident warmUp({mCleanup.domain("soak"), {}}, true); }
        const size_t fds = countEntries("/proc/self/fd");
        const size_t threads = countEntries("/proc/self/task");
        bool good = true;
        {
            // The parties come first: whoever makes a domain is its master, and masters must die
            // too.
            startAll();
            std::vector<std::unique_ptr<Resident>> residents;
            for (int d = 0; d < kDomains; ++d) {
                residents.push_back(std::make_unique<Resident>(mDomains[d], d % 2 == 0));
            }
            good = disturb(residents) && settle(residents);
            for (const auto& resident : residents) {
                std::printf("domain: %llu samples checked by the resident\n",
                            static_cast<unsigned long long>(resident->samples().count()));
                good = good && resident->samples().count() > 0;
            }
        }
        const size_t fdsLeft = countEntries("/proc/self/fd");
        const size_t threadsLeft = countEntries("/proc/self/task");
        std::printf(
            "%d kills, %d orderly ends; descriptors %zu before, %zu after; threads %zu, %zu\n",
            mKills, mEnds, fds, fdsLeft, threads, threadsLeft);
        return good && fds == fdsLeft && threads == threadsLeft;
    }

private:
    void start(size_t place) {
        mParties[place] = std::make_unique<Party>(mPlaces[place], mRandom());
    }

    void startAll() {
        for (size_t place = 0; place < mPlaces.size(); ++place) {
            start(place);
        }
        usleep(300000);
    }

    /// Until the time is over: every 100 to 400 ms a party is killed, or asked to go, and replaced.
    bool disturb(std::vector<std::unique_ptr<Resident>>& residents) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(mSeconds);
        while (std::chrono::steady_clock::now() < end) {
            usleep(static_cast<useconds_t>(100000 + mRandom() % 300000));
            for (const auto& resident : residents) {
                resident->samples().dropAll();
            }
            for (const auto& party : mParties) {
                if (!party->alive()) {
                    std::printf("a party ended by itself\n");
                    return false;
                }
            }
            const size_t place = mRandom() % mPlaces.size();
            const bool byForce = mRandom() % 10 != 0;
            ++(byForce ? mKills : mEnds);
            if (!mParties[place]->end(byForce)) {
                return false;
            }
            start(place);
        }
        return true;
    }

    /// All parties go, half of them killed; then every block of every pool must come back.
    bool settle(std::vector<std::unique_ptr<Resident>>& residents) {
        bool good = true;
        for (const auto& party : mParties) {
            const bool byForce = mRandom() % 2 == 0;
            ++(byForce ? mKills : mEnds);
            good = party->end(byForce) && good;
        }
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        int busy = 0;
        do {
            usleep(100000);
            busy = 0;
            for (size_t d = 0; d < mDomains.size(); ++d) {
                residents[d]->samples().dropAll();
                busy += busyBlocks(mDomains[d].domain, "small") +
                        busyBlocks(mDomains[d].domain, "large");
            }
        } while (busy > 0 && std::chrono::steady_clock::now() < end);
        if (busy > 0) {
            std::printf("%d blocks did not come back\n", busy);
        }
        return good && busy == 0;
    }

    const int mSeconds;
    std::mt19937_64 mRandom;
    std::vector<Names> mDomains;
    OrbelTest::IpcCleanup mCleanup;
    std::vector<Place> mPlaces;
    std::vector<std::unique_ptr<Party>> mParties;
    int mKills = 0;
    int mEnds = 0;
};

}  // namespace
}  // namespace Soak

int main(int argc, char** argv) {
    using namespace Soak;
    if (argc == 5) {
        const uint64_t seed = std::strtoull(argv[4], nullptr, 10);
        return std::string(argv[1]) == "writer" ? writer(argv[2], argv[3], seed)
                                                : reader(argv[2], argv[3], seed);
    }
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
    const uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
    std::printf("soak: %d seconds, seed %llu\n", seconds, static_cast<unsigned long long>(seed));
    std::fflush(stdout);
    const bool good = Run(seconds, seed).pass();
    std::printf("soak %s (seed %llu)\n", good ? "passed" : "FAILED",
                static_cast<unsigned long long>(seed));
    return good ? 0 : 1;
}
