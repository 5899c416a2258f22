#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// The growing byte buffer of connections: readable bytes, room behind them to append, and room in
/// front of them to prepend headers. Sizes are bytes. Pointers into it hold until the next call
/// that adds or moves bytes. A size that cannot be represented throws std::length_error.
///
/// Threads: one at a time.
class ORBEL_API NetBuffer {
public:
    /// A block of `size` readable zero bytes behind `headroom` bytes of room, to be filled through
    /// data(). It is not empty: clear() makes it so, and keeps the room.
    explicit NetBuffer(size_t size, size_t headroom = 0);

    ///@{
    /// Of the readable bytes, which are neither the room in front nor the room behind.
    size_t size() const { return mWriteIndex - mReadIndex; }
    bool empty() const { return mReadIndex == mWriteIndex; }
    ///@}
    /// All the storage, wherever the readable bytes stand in it.
    size_t capacity() const { return mData.size(); }
    ///@{
    /// The first readable byte, null when empty.
    const uint8_t* data() const { return empty() ? nullptr : mData.data() + mReadIndex; }
    uint8_t* data() { return empty() ? nullptr : mData.data() + mReadIndex; }
    ///@}

    /// Room in front of the readable bytes.
    size_t headroom() const { return mReadIndex; }
    ///@{
    /// The `count` bytes in front of the readable ones, null if the room is smaller.
    const uint8_t* headroomData(size_t count) const;
    uint8_t* headroomData(size_t count);
    ///@}

    ///@{
    /// Room behind the readable bytes, null and 0 if there is none. Announce by hasWritten what was
    /// stored there.
    uint8_t* writableData();
    size_t writableSize() const { return mData.size() - mWriteIndex; }
    ///@}

    /// Appends a copy; `data` must not point into this buffer. Null or 0 bytes: nothing happens.
    void append(const void* data, size_t length);
    /// Makes `length` bytes behind the readable ones readable; what lies past the storage is zero.
    void hasWritten(size_t length);
    /// Provides room for `length` more bytes: moves the readable ones to the front first, then
    /// doubles the storage, from 4096 bytes on.
    void ensureWritable(size_t length);

    /// Puts a copy in front of the readable bytes. False if `data` is null or the room too small.
    bool prepend(const void* data, size_t length);
    /// Makes the last `length` bytes of the room readable, for the caller to fill.
    bool prepend(size_t length);
    /// Provides at least `length` bytes in front, now and each time the buffer is emptied.
    void reserveHeadroom(size_t length);

    /// Drops readable bytes from the front, all of them if there are fewer.
    void consume(size_t length);
    /// Drops all readable bytes.
    void clear();
    /// As clear().
    void resetToHeadroom();
    /// Moves the readable bytes to the front, behind the headroom.
    void compact();

    /// Provides at least `capacity` bytes of storage.
    void reserve(size_t capacity);
    /// Makes `size` bytes readable behind `headroom` bytes of room, whatever they hold.
    void resize(size_t size, size_t headroom);
    /// The same with the present headroom.
    void resize(size_t size);

private:
    void grow(size_t required);

    std::vector<uint8_t> mData;
    size_t mHeadroom;  // where an emptied buffer starts again
    size_t mReadIndex;
    size_t mWriteIndex;
};

}  // namespace Vantel::Orbel
