#pragma once

#include <chrono>
#include <cstdint>

/// What the publisher writes beside each payload, in the extra data of its block. Publisher and
/// subscriber are built from this one definition; plain fields, no pointers: they are read by other
/// processes.
struct SampleInfo {
    uint64_t sequence;     ///< 0, 1, 2, ...
    uint64_t sendTimeNs;   ///< nowNs() just before commit()
    uint32_t checksum;     ///< CRC-32 of the payload
    uint32_t endOfStream;  ///< 1 with the last sample
};

/// Nanoseconds of the monotonic clock, which is the same for all processes of a machine.
inline uint64_t nowNs() {
    return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch() /
                                 std::chrono::nanoseconds(1));
}
