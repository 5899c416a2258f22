#pragma once

// The measured side: processes that publish and subscribe through a shared-memory domain.

#include <json/json.h>
#include <poll.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

#include "Vantel/Orbel/SharedMemBuffer.h"
#include "Vantel/Orbel/SharedMemDomain.h"
#include "Vantel/Orbel/SharedMemNode.h"
#include "Vantel/Orbel/SharedMemReadChannel.h"
#include "Vantel/Orbel/SharedMemWriteChannel.h"
#include "bench/IpcCommon.h"

namespace IpcBench {

using Vantel::Orbel::SharedMemBuffer;
using Vantel::Orbel::SharedMemDomain;
using Vantel::Orbel::SharedMemNode;
using Vantel::Orbel::SharedMemReadChannel;
using Vantel::Orbel::SharedMemWriteChannel;

/// In the extra data of each sample.
struct SampleNote {
    uint64_t sequence;  // 0: only to find out whether the reader is there; kLast: the end
    uint64_t sentNs;
};
constexpr uint64_t kLast = ~0ull;

/// One process's place in the domain of a run: a node, and channels made on demand.
class Member {
public:
    Member(const Role& role, const std::string& nodeName)
        : mDomain(SharedMemDomain::instance(role.text("domain"))), mSync(role.number("sync") != 0) {
        const auto blockSize = static_cast<unsigned int>(role.number("payload"));
        const auto blockCount = static_cast<unsigned int>(role.number("blocks"));
        mDomain->setPoolConfigs({{"bench", blockSize, sizeof(SampleNote), blockCount}});
        if (!mDomain->init(Json::Value(Json::objectValue))) {
            fail("domain init");
        }
        mNode = mDomain->createNode(nodeName);
        if (mNode == nullptr || !mNode->init()) {
            fail("node init");
        }
    }
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;
    ~Member() { mDomain->deInit(); }

    std::shared_ptr<SharedMemWriteChannel> writer(
        const std::string& name,
        const std::function<bool(unsigned char*, unsigned int, unsigned char*, unsigned int)>&
            released = {}) {
        auto channel = mNode->newWriteChannel(name);
        if (channel == nullptr || !channel->init() || !channel->create({0, 0, 0}, released)) {
            fail("write channel");
        }
        return channel;
    }

    std::shared_ptr<SharedMemReadChannel> reader(
        const std::string& name,
        const std::function<void(std::shared_ptr<SharedMemBuffer>&)>& callback) {
        auto channel = mNode->newReadChannel(name);
        if (channel == nullptr || !channel->init() || !channel->setSyncMode(mSync) ||
            !channel->open(callback)) {
            fail("read channel");
        }
        return channel;
    }

private:
    std::shared_ptr<SharedMemDomain> mDomain;
    std::shared_ptr<SharedMemNode> mNode;
    bool mSync;
};

inline bool publish(SharedMemWriteChannel& channel, const Payload& payload, uint64_t sequence) {
    auto buffer = channel.allocate(static_cast<unsigned int>(payload.size), sizeof(SampleNote));
    if (buffer == nullptr) {
        return false;
    }
    payload.write(buffer->data(), sequence);
    auto* note = static_cast<SampleNote*>(buffer->extraData());
    note->sequence = sequence;
    note->sentNs = nowNs();
    return channel.commit(buffer);
}

inline SampleNote checkedNote(SharedMemBuffer& buffer, const Payload& payload) {
    SampleNote note;
    if (buffer.extraDataSize() != sizeof note || buffer.size() != payload.size) {
        fail("a sample has the wrong size");
    }
    std::memcpy(&note, buffer.extraData(), sizeof note);
    if (!payload.check(buffer.data(), note.sequence)) {
        fail("a sample is wrong");
    }
    return note;
}

/// Sends a sample when the answer to the one before has come, from inside the callback.
inline void orbelPing(const Role& role) {
    const Payload payload = role.payload();
    Member member(role, "ping");
    const auto out = member.writer(role.text("channel") + "_there");
    std::vector<uint64_t> halves;
    halves.reserve(4000000);
    std::atomic<uint64_t> answered{0};  // the last sequence that came back; kLast at the end
    uint64_t sentNs = 0;
    uint64_t measuredFromNs = kLast;
    uint64_t endNs = kLast;
    const auto in = member.reader(
        role.text("channel") + "_back", [&](std::shared_ptr<SharedMemBuffer>& buffer) {
            const uint64_t now = nowNs();
            const uint64_t sequence = checkedNote(*buffer, payload).sequence;
            if (sequence < 2) {  // the connections are still being made
                answered.store(sequence);
                return;
            }
            if (now >= measuredFromNs) {
                halves.push_back((now - sentNs) / 2);
            }
            if (now >= endNs || halves.size() == halves.capacity()) {
                answered.store(kLast);
                answered.notify_one();
                return;
            }
            sentNs = nowNs();
            if (!publish(*out, payload, sequence + 1)) {
                fail("ping");
            }
        });
    while (answered.load() != 1) {
        publish(*out, payload, 1);
        usleep(20000);
    }
    sentNs = nowNs();
    measuredFromNs = sentNs + 50000000u;
    endNs = measuredFromNs + static_cast<uint64_t>(role.number("ms")) * 1000000u;
    publish(*out, payload, 2);
    for (uint64_t seen = answered.load(); seen != kLast; seen = answered.load()) {
        answered.wait(seen);
    }
    const Percentiles result = percentiles(halves);
    report("%f %f %f %zu\n", result.p50, result.p99, result.max, halves.size());
    waitForEndOfInput();
    in->close();
    out->close();
}

inline void orbelPong(const Role& role) {
    const Payload payload = role.payload();
    Member member(role, "pong");
    const auto out = member.writer(role.text("channel") + "_back");
    const auto in = member.reader(role.text("channel") + "_there",
                                  [&](std::shared_ptr<SharedMemBuffer>& buffer) {
                                      const SampleNote note = checkedNote(*buffer, payload);
                                      publish(*out, payload, note.sequence);
                                  });
    waitForEndOfInput();
    in->close();
    out->close();
}

/// Publishes with back-pressure: when the pool is empty it sleeps until half of it is free again.
class PacedWriter {
public:
    PacedWriter(Member& member, const Role& role)
        : mBlocks(static_cast<uint64_t>(role.number("blocks"))),
          mPayload(role.payload()),
          mChannel(member.writer(role.text("channel"),
                                 [this](unsigned char*, unsigned int, unsigned char*,
                                        unsigned int) { return released(); })) {}

    void publishOrWait(uint64_t sequence) {
        while (!publish(*mChannel, mPayload, sequence)) {
            if (errno != EAGAIN) {
                fail("publish");
            }
            ++mFull;
            const uint64_t wanted = mPublished - mBlocks / 2;
            mWanted.store(wanted);
            for (uint64_t now = mReleased.load(); now < wanted; now = mReleased.load()) {
                mReleased.wait(now);
            }
        }
        ++mPublished;
    }

    SharedMemWriteChannel& channel() { return *mChannel; }
    uint64_t published() const { return mPublished; }
    uint64_t full() const { return mFull; }

private:
    bool released() {
        const uint64_t count = mReleased.fetch_add(1) + 1;
        if (count >= mWanted.load()) {
            mReleased.notify_one();
        }
        return true;
    }

    const uint64_t mBlocks;
    const Payload mPayload;
    std::atomic<uint64_t> mReleased{0};
    std::atomic<uint64_t> mWanted{0};
    uint64_t mPublished = 0;
    uint64_t mFull = 0;
    std::shared_ptr<SharedMemWriteChannel> mChannel;
};

inline bool endOfInput() {
    pollfd input{0, POLLIN, 0};
    return poll(&input, 1, 0) == 1;
}

/// Greets until the parent says that all readers have heard it, then publishes for the time given,
/// as fast as it can or at `rate` samples a second.
inline void orbelWriter(const Role& role) {
    Member member(role, "writer");
    PacedWriter writer(member, role);
    while (!endOfInput()) {
        writer.publishOrWait(0);
        usleep(5000);
    }
    const uint64_t start = nowNs();
    const uint64_t end = start + static_cast<uint64_t>(role.number("ms")) * 1000000u;
    const long rate = role.number("rate");
    uint64_t sequence = 0;
    while (nowNs() < end) {
        writer.publishOrWait(++sequence);
        if (rate > 0) {
            const uint64_t due = start + sequence * 1000000000u / static_cast<uint64_t>(rate);
            const timespec at{static_cast<time_t>(due / 1000000000u),
                              static_cast<long>(due % 1000000000u)};
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr);
        }
    }
    writer.publishOrWait(kLast);
    report("%llu %llu\n", static_cast<unsigned long long>(sequence),
           static_cast<unsigned long long>(writer.full()));
    waitForEndOfInput();
    usleep(200000);  // the last finish messages
}

/// Checks that every sample arrives once and in order.
inline void orbelReader(const Role& role) {
    const Payload payload = role.payload();
    Member member(role, "reader" + role.text("index"));
    std::vector<uint64_t> latencies;
    latencies.reserve(1000000);
    uint64_t last = 0;
    uint64_t firstNs = 0;
    uint64_t lastNs = 0;
    std::atomic<bool> ended{false};
    bool greeted = false;
    const auto in =
        member.reader(role.text("channel"), [&](std::shared_ptr<SharedMemBuffer>& buffer) {
            const uint64_t now = nowNs();
            const SampleNote note = checkedNote(*buffer, payload);
            if (note.sequence == 0) {
                if (!std::exchange(greeted, true)) {
                    report("ready\n");
                }
                return;
            }
            if (note.sequence == kLast) {
                ended.store(true);
                ended.notify_one();
                return;
            }
            if (note.sequence != last + 1) {
                fail("a sample was lost or out of order");
            }
            if (last == 0) {
                firstNs = now;
            }
            last = note.sequence;
            lastNs = now;
            if (latencies.size() < latencies.capacity()) {
                latencies.push_back(now - note.sentNs);
            }
        });
    ended.wait(false);
    const double seconds = static_cast<double>(lastNs - firstNs) / 1e9;
    const Percentiles result = percentiles(latencies);
    report("%f %llu %f %f %f\n", static_cast<double>(last) / seconds,
           static_cast<unsigned long long>(last), result.p50, result.p99, result.max);
    waitForEndOfInput();
    in->close();
}

/// allocate, commit without a reader, drop.
inline void orbelAlone(const Role& role) {
    const Payload payload = role.payload();
    Member member(role, "alone");
    const auto channel = member.writer(role.text("channel"));
    constexpr int kTurns = 200000;
    std::vector<uint64_t> costs;
    for (int round = 0; round < 11; ++round) {
        const uint64_t before = nowNs();
        for (int i = 0; i < kTurns; ++i) {
            auto buffer =
                channel->allocate(static_cast<unsigned int>(payload.size), sizeof(SampleNote));
            if (buffer == nullptr || !channel->commit(buffer)) {
                fail("allocate or commit");
            }
        }
        costs.push_back((nowNs() - before) * 1000 / kTurns);
    }
    report("%f\n", percentiles(costs).p50);
}

/// What a commit to one reader that sleeps costs its caller.
inline void orbelSleepingCommit(const Role& role) {
    const Payload payload = role.payload();
    Member member(role, "writer");
    PacedWriter writer(member, role);
    while (!endOfInput()) {
        writer.publishOrWait(0);
        usleep(5000);
    }
    std::vector<uint64_t> costs;
    for (uint64_t sequence = 1; sequence <= 2000; ++sequence) {
        usleep(200);
        auto buffer =
            writer.channel().allocate(static_cast<unsigned int>(payload.size), sizeof(SampleNote));
        payload.write(buffer->data(), sequence);
        const SampleNote note{sequence, nowNs()};
        std::memcpy(buffer->extraData(), &note, sizeof note);
        const uint64_t before = nowNs();
        writer.channel().commit(buffer);
        costs.push_back(nowNs() - before);
    }
    writer.publishOrWait(kLast);
    const Percentiles result = percentiles(costs);
    report("%f %f %f %zu\n", result.p50, result.p99, result.max, costs.size());
    waitForEndOfInput();
    usleep(200000);
}

}  // namespace IpcBench
