#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A byte store with a cursor. Copies share everything, the cursor too: a queued Buffer must not be
/// filled again by its giver; clone() makes an independent one. Sizes and offsets are bytes.
///
/// Threads: copies may be made and destroyed anywhere; the contents belong to one thread at a time.
class ORBEL_API Buffer {
public:
    /// An empty store without memory.
    Buffer();
    ///@{
    /// Shares the bytes and the cursor of `other`; the last handle to a store frees it.
    Buffer(const Buffer& other);
    Buffer& operator=(const Buffer& other);
    ///@}
    virtual ~Buffer();

    /// Moves the cursor to the beginning.
    void reset();

    /// The byte at `offset`, null if that is negative or above the capacity, or without memory.
    uint8_t* data(int offset = 0) const;
    /// The byte at the cursor.
    uint8_t* offset() const;
    /// The end of the store, as resize() and append() have set it; nothing to do with the cursor.
    int size() const;
    /// How far resize() goes without new memory.
    int capability() const;
    /// From the cursor to the end; negative if resize() has cut the store before the cursor.
    int remain() const;
    /// The position of the cursor, from the beginning.
    int tell() const;

    /// Sets the size and returns it, -1 if it is negative or there is no memory. The cursor stays,
    /// also past the new end.
    int resize(int size);
    /// Copies to the cursor and moves it on. With `grow` the store is first made larger by `length`
    /// if the rest is too small; otherwise only what fits is copied. Returns the count copied, -1
    /// for a negative `length` or null `data`.
    int append(const void* data, int length, bool grow);
    /// A store of its own with a copy of all bytes and the cursor at their end, owned by the
    /// caller. Null without memory.
    Buffer* clone() const;
    /// Moves the cursor relative to the beginning (`whence` 0), itself (1) or the end (2) and
    /// returns its position. -1 for a target outside the store, or for any other `whence`; a store
    /// without memory takes any and answers 0.
    int seek(int offset, int whence);

private:
    struct ORBEL_LOCAL State;
    void release();

    State* mState;
};

}  // namespace Vantel::Orbel
