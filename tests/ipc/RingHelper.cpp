// usage: RingHelper write NAME WORDS NODES WRITER COUNT   puts COUNT records, then "done"
//        RingHelper overwrite ...                         the same, without regard for readers
//        RingHelper read NAME WRITERS COUNT poll|sleep    gets COUNT of each writer, then "whole"
//        RingHelper read NAME WRITERS COUNT lossy         gets so many in all, with gaps
//        RingHelper follow NAME                           prints the number of each record it gets
//        RingHelper wedge NAME                            stops in the middle of a record

#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "Vantel/Memory/CShmBuffer.h"
#include "Vantel/Orbel/CTime.h"
#include "tests/ipc/RingSupport.h"
#include "tests/support/WaitFor.h"

using OrbelTest::say;
using OrbelTest::TestRecord;
using Vantel::Memory::CShmBuffer;

namespace {

int write(const char* name, unsigned words, unsigned nodes, uint64_t writer, uint64_t count,
          bool overwrite) {
    CShmBuffer ring;
    ring.setOverwrite(overwrite);
    if (!ring.create(name, words * 8, nodes, 1)) {
        return say("create failed", 1);
    }
    say("ready");
    std::getchar();  // all start together
    for (uint64_t number = 0; number < count; ++number) {
        const size_t length = 1 + number % words;
        auto record = TestRecord::make(writer, number, length);
        if (ring.put(record.data(), static_cast<unsigned>(length * 8), 60000) != 0) {
            return say("put failed", 1);
        }
    }
    return say("done", 0);
}

int read(const char* name, uint64_t writers, uint64_t count, const std::string& mode) {
    const bool sleeping = mode == "sleep";
    const bool lossy = mode == "lossy";
    CShmBuffer ring;
    if (!ring.open(name) || (sleeping && !ring.enableEvent(true))) {
        return say("open failed", 1);
    }
    say("ready");
    std::vector<uint64_t> next(writers, 0);
    std::vector<uint64_t> buffer(8192);
    for (uint64_t left = lossy ? count : writers * count; left > 0;) {
        unsigned size = 0;
        const int got = ring.get(buffer.data(), static_cast<unsigned>(buffer.size() * 8), &size);
        if (got < 0) {
            return say("get failed", 1);
        }
        if (got == 0 && sleeping) {
            pollfd readable{ring.getEventFd(), POLLIN, 0};
            if (poll(&readable, 1, 60000) != 1) {
                return say("not woken", 1);
            }
            ring.readEvent(1024);
        } else if (got == 0) {
            std::this_thread::yield();
        } else {
            const uint64_t writer = TestRecord::writer(buffer.data());
            const uint64_t number = TestRecord::number(buffer.data());
            if (!TestRecord::whole(buffer.data(), size / 8) || writer >= writers) {
                return say("torn", 1);
            }
            if (number < next[writer] || (number > next[writer] && !lossy)) {
                return say("lost or twice", 1);
            }
            next[writer] = number + 1;
            --left;
        }
    }
    return say("whole", 0);
}

int follow(const char* name) {
    CShmBuffer ring;
    // open() waits for a ring that is missing, not for one that is being made: that one is refused.
    if (!OrbelTest::waitFor([&] { return ring.open(name); })) {
        return say("open failed", 1);
    }
    say("ready");
    std::vector<uint64_t> buffer(8192);
    for (;;) {
        unsigned size = 0;
        if (ring.get(buffer.data(), static_cast<unsigned>(buffer.size() * 8), &size) > 0) {
            const bool whole = TestRecord::whole(buffer.data(), size / 8);
            say(whole ? std::to_string(TestRecord::number(buffer.data())).c_str() : "torn");
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
}

/// As a writer that has marked its record "being written" six seconds ago.
int wedge(const char* name) {
    OrbelTest::RawRing ring(name);
    const uint64_t position = ring.header().tail.fetchAdd(1);
    Vantel::Memory::ShmNode& node = ring.node(position % ring.header().nodeCount.load());
    node.writerPid.store(static_cast<uint32_t>(getpid()));
    node.word.store(
        Vantel::Memory::RingWord{Vantel::Memory::RingWord::State::Writing, position}.pack());
    node.timestamp.store(Vantel::Orbel::CTime::getCurrentMicroSecond() - 6000000);
    say("ready");
    std::getchar();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 2 ? argv[1] : "";
    const auto number = [&](int i) { return std::strtoul(argv[i], nullptr, 10); };
    if ((role == "write" || role == "overwrite") && argc == 7) {
        return write(argv[2], static_cast<unsigned>(number(3)), static_cast<unsigned>(number(4)),
                     number(5), number(6), role == "overwrite");
    }
    if (role == "read" && argc == 6) {
        return read(argv[2], number(3), number(4), argv[5]);
    }
    if (role == "follow") {
        return follow(argv[2]);
    }
    return role == "wedge" ? wedge(argv[2]) : 2;
}
