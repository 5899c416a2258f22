// Receives what publisher sends, in place, and can write the file out again.
//
//     subscriber DOMAIN [--sync] [--keep] [--count N] [--log] [FILE]
//
//     --sync    take the samples on the domain's loop thread: a hand-over less, but never block
//     --keep    hold on to every sample, as a stuck application would, until SIGINT or SIGTERM
//     --count   leave after N samples
//     --log     say to the log server (examples/log_server) what happens, as "<DOMAIN>_subscriber"
//
// Ends with the stream, after N samples or on SIGINT or SIGTERM, and says what it got: samples,
// bytes, speed, longest pause, microseconds from commit to callback (half, 99 % and all of the
// samples were faster).
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "SampleInfo.h"
#include "Vantel/ILogger.h"
#include "Vantel/Orbel/SharedMemBuffer.h"
#include "Vantel/Orbel/SharedMemDomain.h"
#include "Vantel/Orbel/SharedMemNode.h"
#include "Vantel/Orbel/SharedMemReadChannel.h"
#include "Vantel/Utils/Checksum.h"

using namespace Vantel::Orbel;
using Vantel::ILogger;

namespace {

struct Options {
    bool sync = false;
    bool keep = false;
    bool log = false;
    unsigned long count = ~0UL;
    std::string file;
};

class Receiver {
public:
    explicit Receiver(const Options& options) : mOptions(options) {
        if (!options.file.empty()) {
            mFile = std::fopen(options.file.c_str(), "wb");
        }
    }
    ~Receiver() {
        if (mFile != nullptr) {
            std::fclose(mFile);
        }
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    // Called for each sample, one after the other. The payload stays where the publisher put it,
    // and stays ours until the last copy of `sample` is gone.
    void onSample(std::shared_ptr<SharedMemBuffer>& sample) {
        const uint64_t now = nowNs();
        if (mDone) {
            return;
        }
        const auto& info = *static_cast<const SampleInfo*>(sample->extraData());
        const auto* payload = static_cast<const uint8_t*>(sample->data());
        mLatencyNs.push_back(now - info.sendTimeNs);
        mFirstNs = mLatencyNs.size() == 1 ? info.sendTimeNs : mFirstNs;
        mLongestGapNs = std::max(mLongestGapNs, mLatencyNs.size() == 1 ? 0 : now - mLastNs);
        mLastNs = now;
        mBytes += sample->size();
        mLost += mNext != 0 && info.sequence != mNext ? info.sequence - mNext : 0;
        mNext = info.sequence + 1;
        mCorrupt += Vantel::Utils::crc32(payload, sample->size()) != info.checksum ? 1 : 0;
        if (mFile != nullptr && std::fwrite(payload, 1, sample->size(), mFile) != sample->size()) {
            ++mCorrupt;
        }
        if (mOptions.keep) {
            mKept.push_back(sample);
        }
        const bool finished = info.endOfStream != 0 || mLatencyNs.size() == mOptions.count;
        if (finished && !mOptions.keep) {
            mDone = true;
            kill(getpid(), SIGTERM);  // wakes main()
        }
    }

    void report() {
        std::sort(mLatencyNs.begin(), mLatencyNs.end());
        const auto atShare = [this](double share) {
            const auto last = mLatencyNs.empty() ? 0 : mLatencyNs.size() - 1;
            return mLatencyNs.empty()
                       ? 0.0
                       : static_cast<double>(
                             mLatencyNs[static_cast<size_t>(share * static_cast<double>(last))]) /
                             1e3;
        };
        const double seconds = static_cast<double>(mLastNs - mFirstNs) / 1e9;
        std::printf(
            "samples %zu bytes %lu mb_s %.1f gap_ms %.1f p50_us %.1f p99_us %.1f max_us %.1f "
            "lost %lu corrupt %lu\n",
            mLatencyNs.size(), static_cast<unsigned long>(mBytes),
            seconds > 0 ? static_cast<double>(mBytes) / 1e6 / seconds : 0.0,
            static_cast<double>(mLongestGapNs) / 1e6, atShare(0.5), atShare(0.99), atShare(1),
            static_cast<unsigned long>(mLost), static_cast<unsigned long>(mCorrupt));
        ILogger::instance()->print(ILogger::kInfo, "Demo", "leaves after %zu samples, %lu lost\n",
                                   mLatencyNs.size(), static_cast<unsigned long>(mLost));
    }

private:
    const Options mOptions;
    FILE* mFile = nullptr;
    std::vector<std::shared_ptr<SharedMemBuffer>> mKept;
    std::vector<uint64_t> mLatencyNs;
    uint64_t mFirstNs = 0;
    uint64_t mLastNs = 0;
    uint64_t mLongestGapNs = 0;
    uint64_t mBytes = 0;
    uint64_t mNext = 0;
    uint64_t mLost = 0;
    uint64_t mCorrupt = 0;
    bool mDone = false;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 2; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--sync") {
            options.sync = true;
        } else if (word == "--keep") {
            options.keep = true;
        } else if (word == "--log") {
            options.log = true;
        } else if (word == "--count" && i + 1 < argc) {
            options.count = std::strtoul(argv[++i], nullptr, 10);
        } else {
            options.file = word;
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr,
                     "usage: subscriber DOMAIN [--sync] [--keep] [--count N] [--log] [FILE]\n");
        return 2;
    }
    // Blocked before any thread starts, so that main() can wait for them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    const std::string name = argv[1];
    const Options options = parse(argc, argv);
    Receiver receiver(options);
    if (options.log) {  // first of all: until then, lines are swallowed
        ILogger::instance()->init((name + "_subscriber").c_str(), 4096);
    }

    // No pools here: those that the publisher made are found as its samples come.
    auto domain = SharedMemDomain::instance(name);
    if (!domain->init(Json::objectValue)) {
        return 1;
    }
    auto node = domain->createNode("subscriber" + std::to_string(getpid()));
    if (node == nullptr || !node->init()) {
        return 1;
    }
    auto channel = node->newReadChannel(name + "_file");
    channel->setSyncMode(options.sync);
    const auto onSample = [&receiver](std::shared_ptr<SharedMemBuffer>& sample) {
        receiver.onSample(sample);
    };
    if (!channel->init() || !channel->open(onSample)) {
        return 1;
    }
    ILogger::instance()->print(ILogger::kInfo, "Demo", "listens%s%s\n",
                               options.sync ? ", on the domain's loop" : "",
                               options.keep ? ", and keeps all" : "");
    std::printf("ready\n");
    std::fflush(stdout);

    int signal = 0;
    sigwait(&stop, &signal);
    channel->close();
    domain->deInit();  // no callback runs after this
    receiver.report();
    return 0;
}
