#pragma once

// One party of the soak: a process (or a thread of the parent) that writes or reads samples whose
// every byte can be checked.

#include <fcntl.h>
#include <json/json.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "Vantel/Orbel/SharedMemBuffer.h"
#include "Vantel/Orbel/SharedMemDomain.h"
#include "Vantel/Orbel/SharedMemNode.h"
#include "Vantel/Orbel/SharedMemReadChannel.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"

namespace Soak {

using Vantel::Orbel::SharedMemBuffer;
using Vantel::Orbel::SharedMemDomain;

constexpr unsigned int kSmallBlock = 4096;
constexpr unsigned int kLargeBlock = 256 * 1024;
constexpr unsigned int kSmallCount = 64;
constexpr unsigned int kLargeCount = 16;

/// In the extra data of each sample.
struct Note {
    uint64_t writer;    // drawn by each writer at its start
    uint64_t sequence;  // 1, 2, 3, ... of that writer
    uint64_t size;      // payload bytes, a multiple of 8
    uint64_t withFd;    // 1 if a descriptor goes along
};

[[noreturn]] inline void fail(const std::string& what) {
    std::printf("FAILED in process %d: %s\n", getpid(), what.c_str());
    std::fflush(stdout);
    std::_Exit(1);
}

/// splitmix64: each word of a payload follows from the note.
inline uint64_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15u;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
    return x ^ (x >> 31);
}

inline void fill(void* data, const Note& note) {
    auto* words = static_cast<uint64_t*>(data);
    const uint64_t seed = mix(note.writer ^ note.sequence);
    for (uint64_t i = 0; i < note.size / 8; ++i) {
        words[i] = seed + i * 0x9E3779B97F4A7C15u;
    }
}

inline void check(SharedMemBuffer& buffer, const Note& note) {
    if (note.size != buffer.size()) {
        fail("size of a sample");
    }
    const auto* words = static_cast<const uint64_t*>(buffer.data());
    const uint64_t seed = mix(note.writer ^ note.sequence);
    for (uint64_t i = 0; i < note.size / 8; ++i) {
        if (words[i] != seed + i * 0x9E3779B97F4A7C15u) {
            fail("payload of sample " + std::to_string(note.sequence) + " at word " +
                 std::to_string(i));
        }
    }
}

inline std::shared_ptr<SharedMemDomain> join(const std::string& domainName) {
    auto domain = SharedMemDomain::instance(domainName);
    domain->setPoolConfigs({{"small", kSmallBlock, sizeof(Note), kSmallCount},
                            {"large", kLargeBlock, sizeof(Note), kLargeCount}});
    if (!domain->init(Json::Value(Json::objectValue))) {
        fail("domain init");
    }
    return domain;
}

/// Collects samples: checks each, holds a few for a random while, and looks at the order per
/// writer.
class Reader {
public:
    explicit Reader(uint64_t seed) : mRandom(seed) {}

    void operator()(std::shared_ptr<SharedMemBuffer>& buffer) {
        Note note;
        if (buffer->extraDataSize() != sizeof note) {
            fail("size of the extra data");
        }
        std::memcpy(&note, buffer->extraData(), sizeof note);
        check(*buffer, note);
        if ((note.withFd != 0) != (buffer->fd() >= 0)) {
            fail("descriptor of a sample");
        }
        std::lock_guard<std::mutex> guard(mMutex);
        uint64_t& last = mLast[note.writer];
        if (note.sequence <= last) {
            fail("a sample came twice or out of order");
        }
        last = note.sequence;
        ++mCount;
        if (mRandom() % 4 == 0) {
            mHeld.emplace_back(buffer, note);
        }
        while (mHeld.size() > 4) {
            dropOldest();
        }
    }

    /// Lets go of what is held, checking that nobody has written into it meanwhile.
    void dropAll() {
        std::lock_guard<std::mutex> guard(mMutex);
        while (!mHeld.empty()) {
            dropOldest();
        }
    }

    uint64_t count() const {
        std::lock_guard<std::mutex> guard(mMutex);
        return mCount;
    }

private:
    void dropOldest() {
        check(*mHeld.front().first, mHeld.front().second);
        mHeld.pop_front();
    }

    mutable std::mutex mMutex;
    std::mt19937_64 mRandom;
    std::map<uint64_t, uint64_t> mLast;
    std::deque<std::pair<std::shared_ptr<SharedMemBuffer>, Note>> mHeld;
    uint64_t mCount = 0;
};

/// True when the parent has closed our standard input; waits for at most `ms`.
inline bool toldToStop(int ms) {
    pollfd input{0, POLLIN, 0};
    return poll(&input, 1, ms) == 1;
}

/// Writes samples of random sizes until told to stop.
inline int writer(const std::string& domainName, const std::string& channelName, uint64_t seed) {
    std::mt19937_64 random(seed);
    const auto domain = join(domainName);
    const auto node = domain->createNode("w" + std::to_string(getpid()));
    if (node == nullptr || !node->init()) {
        fail("node of a writer");
    }
    const auto channel = node->newWriteChannel(channelName);
    if (!channel->init() || !channel->create({0, 0, 0}, {})) {
        fail("channel of a writer");
    }
    const int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    Note note{random() | 1, 0, 0, 0};
    auto lastSuccess = std::chrono::steady_clock::now();
    while (!toldToStop(random() % 8 == 0 ? 2 : 0)) {
        const unsigned int limit = random() % 4 == 0 ? kLargeBlock : kSmallBlock;
        note.size = (random() % (limit / 8) + 1) * 8;
        auto buffer = channel->allocate(static_cast<unsigned int>(note.size), sizeof note);
        const auto now = std::chrono::steady_clock::now();
        if (buffer == nullptr) {
            if (errno != EAGAIN) {
                fail("allocate");
            }
            // Readers hold samples for moments, and the dead lose theirs within seconds.
            if (now - lastSuccess > std::chrono::seconds(20)) {
                fail("no free block for 20 seconds");
            }
            usleep(500);
            continue;
        }
        lastSuccess = now;
        ++note.sequence;
        note.withFd = random() % 16 == 0 ? 1 : 0;
        buffer->fd(note.withFd != 0 ? devNull : -1);
        fill(buffer->data(), note);
        std::memcpy(buffer->extraData(), &note, sizeof note);
        if (random() % 32 != 0 && !channel->commit(buffer)) {  // some are dropped unpublished
            fail("commit");
        }
    }
    channel->close();
    domain->deInit();
    close(devNull);
    return 0;
}

/// Reads until told to stop, closing and opening again, and re-creating its node, now and then.
inline int reader(const std::string& domainName, const std::string& channelName, uint64_t seed) {
    std::mt19937_64 random(seed);
    const auto domain = join(domainName);
    const std::string nodeName = "r" + std::to_string(getpid());
    do {
        // One for each life of the node: a last callback of an earlier one may still be running.
        const auto samples = std::make_shared<Reader>(random());
        const auto node = domain->createNode(nodeName);
        if (node == nullptr || !node->init()) {
            fail("node of a reader");
        }
        const auto channel = node->newReadChannel(channelName);
        channel->setSyncMode(random() % 2 == 0);
        if (!channel->init() || !channel->open([samples](std::shared_ptr<SharedMemBuffer>& buffer) {
                (*samples)(buffer);
            })) {
            fail("channel of a reader");
        }
        bool stop = false;
        for (auto turns = random() % 40 + 2; turns > 0 && !stop; --turns) {
            stop = toldToStop(static_cast<int>(random() % 50));
            samples->dropAll();
        }
        channel->close();
        samples->dropAll();
        domain->destroyNode(nodeName);
    } while (!toldToStop(0));
    domain->deInit();
    return 0;
}

}  // namespace Soak
