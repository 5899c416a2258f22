#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "ipc/RingLayout.h"
#include "tests/ipc/RawSegment.h"
#include "tests/support/TestName.h"

namespace OrbelTest {

/// Names of rings and triple buffers; removes what they leave on the machine, also after a failure.
class ShmCleanup {
public:
    ShmCleanup() = default;
    ShmCleanup(const ShmCleanup&) = delete;
    ShmCleanup& operator=(const ShmCleanup&) = delete;
    ~ShmCleanup() {
        for (const std::string& name : mNames) {
            for (const std::string kind : {"shmBuf", "shmTriple"}) {
                shm_unlink(("/" + kind + "_" + name).c_str());
                unlink(("/tmp/" + kind + "_" + name + ".lock").c_str());
            }
            for (int slot = 0; slot < 16; ++slot) {
                unlink(fifo(name, slot).c_str());
            }
        }
    }

    std::string name(const std::string& base) { return mNames.emplace_back(uniqueName(base)); }
    static std::string fifo(const std::string& name, int slot) {
        return "/tmp/shmBufFifo_" + name + "_" + std::to_string(slot);
    }

private:
    std::vector<std::string> mNames;
};

/// The segment of a ring.
class RawRing : public RawSegment {
public:
    explicit RawRing(const std::string& name) : RawSegment("/shmBuf_" + name) {}

    Vantel::Memory::ShmBufferHeader& header() { return at<Vantel::Memory::ShmBufferHeader>(0); }
    Vantel::Memory::ShmReaderSlot& reader(size_t slot) { return header().readers[slot]; }
    Vantel::Memory::ShmNode& node(uint64_t index) {
        return at<Vantel::Memory::ShmNode>(1344 + index * (header().nodeSize.load() + 32));
    }
};

/// A record that shows where it comes from and whether it is whole: every 64-bit word of it is a
/// function of writer and number.
struct TestRecord {
    static uint64_t word(uint64_t writer, uint64_t number, size_t at) {
        return (writer << 48 | number) * 0x9E3779B97F4A7C15u + at * 0xD1B54A32D192ED03u;
    }

    static std::vector<uint64_t> make(uint64_t writer, uint64_t number, size_t words) {
        std::vector<uint64_t> record(words);
        record[0] = writer << 48 | number;
        for (size_t at = 1; at < words; ++at) {
            record[at] = word(writer, number, at);
        }
        return record;
    }
    static bool whole(const uint64_t* record, size_t words) {
        for (size_t at = 1; at < words; ++at) {
            if (record[at] != word(writer(record), number(record), at)) {
                return false;
            }
        }
        return true;
    }
    static uint64_t writer(const uint64_t* record) { return record[0] >> 48; }
    static uint64_t number(const uint64_t* record) { return record[0] & 0xFFFFFFFFFFFF; }
};

/// A line of a helper program to its test; the exit status comes back.
inline int say(const char* line, int status = 0) {
    std::puts(line);
    std::fflush(stdout);
    return status;
}

}  // namespace OrbelTest
