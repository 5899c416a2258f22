// usage: TripleHelper write NAME WORDS   puts at full speed until its input ends
//        TripleHelper read NAME COUNT    gets COUNT samples, then "whole", or what was wrong

#include <poll.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "Vantel/Memory/CShmTripleBuffer.h"
#include "tests/ipc/RingSupport.h"

using OrbelTest::say;
using OrbelTest::TestRecord;
using Vantel::Memory::CShmTripleBuffer;

namespace {

int write(const char* name, size_t words) {
    CShmTripleBuffer buffer;
    if (!buffer.create(name, static_cast<unsigned>(words * 8))) {
        return say("create failed", 1);
    }
    say("ready");
    pollfd input{0, POLLIN, 0};
    for (uint64_t number = 1; number % 256 != 0 || poll(&input, 1, 0) == 0; ++number) {
        const auto sample = TestRecord::make(0, number, 1 + number % words);
        if (buffer.put(sample.data(), static_cast<unsigned>(sample.size() * 8)) != 0) {
            return say("put failed", 1);
        }
    }
    return 0;
}

int read(const char* name, long count) {
    CShmTripleBuffer buffer;
    if (!buffer.open(name, true)) {
        return say("open failed", 1);
    }
    uint64_t last = 0;
    std::vector<uint64_t> sample(8192);
    while (count > 0) {
        unsigned size = 0;
        unsigned long sequence = 0;
        const int got = buffer.get(sample.data(), 65536, &size, &sequence);
        if (got < 0) {
            return say("get failed", 1);
        }
        if (got == 0) {
            std::this_thread::yield();
            continue;
        }
        if (!TestRecord::whole(sample.data(), size / 8)) {
            return say("torn", 1);
        }
        // The writer's own number, so that sequence and content are seen to belong together.
        if (TestRecord::number(sample.data()) != sequence || sequence <= last) {
            return say("older", 1);
        }
        last = sequence;
        --count;
    }
    return say("whole", 0);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 3 ? argv[1] : "";
    const auto number = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0;
    if (role == "write") {
        return write(argv[2], number);
    }
    return role == "read" ? read(argv[2], static_cast<long>(number)) : 2;
}
