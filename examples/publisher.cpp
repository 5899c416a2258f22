// Streams a file to other processes, which see its pieces in place, in shared memory.
//
//     publisher DOMAIN FILE READERS [--log]
//
// --log sends what it has to say to the log server, too (examples/log_server), as
// "<DOMAIN>_publisher". Waits for READERS subscribers on the channel "<DOMAIN>_file", sends, waits
// until all samples came back, and says what happened.
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "SampleInfo.h"
#include "Vantel/ILogger.h"
#include "Vantel/Orbel/SharedMemBuffer.h"
#include "Vantel/Orbel/SharedMemDomain.h"
#include "Vantel/Orbel/SharedMemNode.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"
#include "Vantel/Utils/Checksum.h"

using namespace Vantel::Orbel;
using Vantel::ILogger;

namespace {

// Blocks of two sizes: allocate() takes the smallest that fits.
constexpr unsigned int kSmall = 4096;
constexpr unsigned int kLarge = 65536;

struct Waiting {
    unsigned long refused = 0;  // allocate() said EAGAIN
    uint64_t ns = 0;            // spent until it did not
};

// A block, as soon as there is one. EAGAIN means that readers still hold all of them: a writer that
// must lose nothing waits, one that must not wait skips the sample.
std::shared_ptr<SharedMemBuffer> allocateWaiting(SharedMemWriteChannel& channel, unsigned int size,
                                                 Waiting& waiting) {
    auto sample = channel.allocate(size, sizeof(SampleInfo));
    if (sample == nullptr && errno == EAGAIN) {
        const uint64_t begin = nowNs();
        while (sample == nullptr && errno == EAGAIN) {
            ++waiting.refused;
            usleep(100);
            sample = channel.allocate(size, sizeof(SampleInfo));
        }
        waiting.ns += nowNs() - begin;
    }
    return sample;
}

int stream(SharedMemWriteChannel& channel, std::ifstream& file, std::atomic<unsigned long>& back) {
    file.seekg(0, std::ios::end);
    const auto total = static_cast<uint64_t>(file.tellg());
    file.seekg(0);

    Waiting waiting;
    uint64_t sent = 0;
    uint64_t sequence = 0;
    do {
        const unsigned int room = sequence % 4 == 3 ? kSmall : kLarge;
        const auto size = static_cast<unsigned int>(std::min<uint64_t>(room, total - sent));
        auto sample = allocateWaiting(channel, size, waiting);
        if (sample == nullptr) {
            std::perror("allocate");
            return 1;
        }
        // The file is read straight into the block that the subscribers will see.
        file.read(static_cast<char*>(sample->data()), size);
        sent += size;
        auto* info = static_cast<SampleInfo*>(sample->extraData());
        info->sequence = sequence++;
        info->checksum = Vantel::Utils::crc32(static_cast<uint8_t*>(sample->data()), size);
        info->endOfStream = sent == total ? 1 : 0;
        info->sendTimeNs = nowNs();
        if (!channel.commit(sample)) {
            std::fprintf(stderr, "commit failed\n");
            return 1;
        }
    } while (sent < total);  // `sample` goes here; the block comes back when all readers are done

    std::printf("sent %lu bytes %lu\n", static_cast<unsigned long>(sequence),
                static_cast<unsigned long>(sent));
    std::fflush(stdout);
    ILogger::instance()->print(ILogger::kInfo, "Demo", "sent %lu samples, %lu bytes\n",
                               static_cast<unsigned long>(sequence),
                               static_cast<unsigned long>(sent));
    while (back.load() < sequence) {
        usleep(1000);
    }
    std::printf("back %lu eagain %lu waited_ms %.1f\n", back.load(), waiting.refused,
                static_cast<double>(waiting.ns) / 1e6);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const bool log = argc == 5 && std::string(argv[4]) == "--log";
    if (argc != 4 && !log) {
        std::fprintf(stderr, "usage: publisher DOMAIN FILE READERS [--log]\n");
        return 2;
    }
    const std::string name = argv[1];
    if (log) {  // first of all: until then, lines are swallowed
        ILogger::instance()->init((name + "_publisher").c_str(), 4096);
    }
    std::ifstream file(argv[2], std::ios::binary);
    if (!file) {
        std::perror(argv[2]);
        return 1;
    }

    auto domain = SharedMemDomain::instance(name);
    // name, payload and extra bytes per block (multiples of 8, please), number of blocks
    domain->setPoolConfigs(
        {{"small", kSmall, sizeof(SampleInfo), 32}, {"large", kLarge, sizeof(SampleInfo), 32}});
    if (!domain->init(Json::objectValue)) {
        return 1;
    }
    auto node = domain->createNode("publisher");
    if (node == nullptr || !node->init()) {
        return 1;
    }
    auto channel = node->newWriteChannel(name + "_file");
    std::atomic<unsigned long> back{0};
    // The release callback runs on whichever thread lets go of the block last.
    const auto onRelease = [&back](unsigned char*, unsigned int, unsigned char*, unsigned int) {
        ++back;
        return true;
    };
    if (!channel->init() || !channel->create({}, onRelease)) {
        return 1;
    }
    ILogger::instance()->print(ILogger::kInfo, "Demo", "sends %s to %s readers\n", argv[2],
                               argv[3]);
    std::printf("ready\n");
    std::fflush(stdout);
    while (channel->getReaderCount() < static_cast<unsigned int>(std::atoi(argv[3]))) {
        usleep(1000);
    }
    const int result = stream(*channel, file, back);
    channel->close();
    domain->deInit();
    return result;
}
