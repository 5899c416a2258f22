#pragma once

#include <cstddef>
#include <cstdint>

namespace Vantel::Memory {

/// Stands directly in front of what the debug pool hands out, at any alignment: copied in and out.
/// The addresses are those of the process that allocated.
struct GuardRecord {
    uint64_t size;   // what was asked for
    uint64_t raw;    // address of the block of the plain pool
    uint64_t guard;  // address of the page that is write-protected
    uint64_t magic;  // kGuardMagic, the word before the data
};

inline constexpr uint64_t kGuardMagic = 0x12345678;

static_assert(sizeof(GuardRecord) == 32);
static_assert(offsetof(GuardRecord, size) == 0 && offsetof(GuardRecord, raw) == 8 &&
              offsetof(GuardRecord, guard) == 16 && offsetof(GuardRecord, magic) == 24);

}  // namespace Vantel::Memory
