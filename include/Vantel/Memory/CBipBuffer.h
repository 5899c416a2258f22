#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Memory {

/// A ring of bytes in two regions, whose writer and reader always see contiguous memory.
///
/// The reader consumes region A; the writer extends A at its end, or, once the gap in front of A
/// is the larger one, fills region B from the start of the area. When A is consumed, B becomes A.
///
/// Threads: one at a time; there is no lock inside.
class ORBEL_API CBipBuffer {
public:
    CBipBuffer();
    CBipBuffer(const CBipBuffer&) = delete;
    CBipBuffer& operator=(const CBipBuffer&) = delete;
    ~CBipBuffer();

    /// Takes an area of `size` bytes from IMemoryPool; false for a negative size and without
    /// memory. To be called once: an earlier area is not given back.
    bool initial(int size);

    /// Drops all data; false before initial().
    bool reset();

    /// Bytes in the area.
    int size() const;

    /// Region A holds nothing.
    bool empty() const;

    /// Bytes in both regions.
    int used() const;

    /// The largest write possible now. Less than what is free altogether.
    int unused() const;

    /// Region A and its `size`; null, with `size` as it was, if empty.
    uint8_t* peek(int& size);

    /// Consumes `size` bytes and returns where they start: valid until the next write. Null if
    /// empty and beyond the end of the area. More than peek() offered is the caller's error.
    uint8_t* poll(int size);

    /// Where `size` bytes may be written before a commit(); null if they do not fit.
    uint8_t* request(int size);

    /// Counts `size` bytes written at request() and returns `size`; 0 if they do not fit.
    int commit(int size);

    /// Copies `size` bytes in and returns `size`; 0, with nothing changed, if they do not fit.
    int offer(const uint8_t* bytes, int size);

private:
    class ORBEL_LOCAL Internal;

    Internal* mInternal;
};

}  // namespace Vantel::Memory
