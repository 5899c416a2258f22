#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "frame/base/NamedSegment.h"
#include "ipc/RingLayout.h"
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

/// What a test does to a segment behind its owners' backs.
class RawSegment {
public:
    explicit RawSegment(const std::string& path) : mSegment(path) {
        if (mSegment.open(0666)) {
            const off_t length = mSegment.length();
            mSegment.map(static_cast<size_t>(length));
        }
    }

    template <class Header>
    Header& as() {
        return *static_cast<Header*>(mSegment.address());
    }
    Vantel::Memory::ShmBufferHeader& ring() { return as<Vantel::Memory::ShmBufferHeader>(); }
    Vantel::Memory::ShmNode& node(uint64_t index) {
        auto* nodes = static_cast<std::byte*>(mSegment.address()) + 1344;
        return *reinterpret_cast<Vantel::Memory::ShmNode*>(nodes +
                                                           index * (ring().nodeSize.load() + 32));
    }
    size_t size() const { return mSegment.size(); }

private:
    Vantel::Orbel::NamedSegment mSegment;
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

}  // namespace OrbelTest
