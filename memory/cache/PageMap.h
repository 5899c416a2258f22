#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "frame/base/Assert.h"
#include "memory/cache/RecordArena.h"
#include "memory/cache/Span.h"

namespace Vantel::Memory {

/// What the page map holds for a page: its span and, so that a free needs no look at the span, its
/// class. No user-space address needs the upper 16 bits.
///     0..47    the span
///     48..55   tag: class + 1, 0 where there is none
///     56..63   the tag again if threads cache the class, else 0
class PageEntry {
public:
    PageEntry() = default;
    PageEntry(Span* span, uint8_t tag)
        : mWord(reinterpret_cast<uintptr_t>(span) | uint64_t{tag} << kTagShift |
                (tag <= SizeClass::kThreadLists ? uint64_t{tag} << kThreadTagShift : 0)) {}
    static PageEntry unpack(uint64_t word) {
        PageEntry entry;
        entry.mWord = word;
        return entry;
    }
    uint64_t pack() const { return mWord; }

    Span* span() const { return reinterpret_cast<Span*>(mWord & ((uint64_t{1} << kTagShift) - 1)); }
    uint64_t tag() const { return mWord >> kTagShift & 0xFF; }
    uint64_t threadTag() const { return mWord >> kThreadTagShift; }

private:
    static constexpr int kTagShift = 48;
    static constexpr int kThreadTagShift = 56;
    uint64_t mWord = 0;
};

/// Three-level radix tree from page ids of BITS bits to entries.
///
/// Threads: set() and ensure() under the page cache's lock, the rest by anybody without one. Nodes
/// are never freed. The entries of a page are valid while an object in it is out: whoever has the
/// object has it from a thread that saw them written, so that relaxed reads are enough.
template <int BITS>
class PageMap3 {
    static constexpr int kLeafBits = 18;
    static constexpr int kInteriorBits = 18;
    static constexpr int kRootBits = BITS - kLeafBits - kInteriorBits;
    static constexpr size_t kLength = size_t{1} << kLeafBits;

public:
    static constexpr size_t kLeafPages = kLength;

    class alignas(kPageSize) Leaf {
    public:
        PageEntry get(uint64_t k) const { return at(k & kMask); }
        /// The entry of the leaf's page number `i`, below kLeafPages.
        PageEntry at(uint64_t i) const {
            return PageEntry::unpack(
                std::atomic_ref(const_cast<uint64_t&>(entries[i])).load(std::memory_order_relaxed));
        }
        void set(uint64_t k, PageEntry entry) {
            std::atomic_ref(entries[k & kMask]).store(entry.pack(), std::memory_order_relaxed);
        }

    private:
        static constexpr uint64_t kMask = kLength - 1;
        uint64_t entries[kLength];
    };

    /// The leaf that holds page `k`, null if there is none yet.
    Leaf* leafOf(uint64_t k) {
        if (k >> BITS != 0) {
            return nullptr;
        }
        Interior* interior = load(mRoot[rootIndex(k)]);
        return interior == nullptr ? nullptr : load(interior->leafs[interiorIndex(k)]);
    }

    /// The first page of the leaf that holds page `k`.
    static constexpr uint64_t firstOfLeaf(uint64_t k) { return k & ~uint64_t{kLength - 1}; }

    /// An empty entry where nothing was set.
    PageEntry get(uint64_t k) {
        const Leaf* leaf = leafOf(k);
        return leaf == nullptr ? PageEntry() : leaf->get(k);
    }

    /// ensure() must have made the nodes.
    void set(uint64_t k, PageEntry entry) {
        ORBEL_ASSERT(k >> BITS == 0);
        const size_t i1 = rootIndex(k);
        const size_t i2 = interiorIndex(k);
        ORBEL_ASSERT(mRoot[i1] != nullptr);
        ORBEL_ASSERT(mRoot[i1]->leafs[i2] != nullptr);
        mRoot[i1]->leafs[i2]->set(k, entry);
    }

    /// Makes the nodes for `count` pages from `first` on; false if the system refuses one.
    bool ensure(uint64_t first, uint64_t count) {
        const uint64_t last = first + count - 1;
        for (uint64_t k = first; k <= last; k = ((k >> kLeafBits) + 1) << kLeafBits) {
            if (k >> BITS != 0 || !grow(mRoot[rootIndex(k)], mInteriors) ||
                !grow(mRoot[rootIndex(k)]->leafs[interiorIndex(k)], mLeafs)) {
                return false;
            }
        }
        return true;
    }

    /// Unmaps all nodes; the map is empty then.
    void clear() {
        for (size_t i = 0; i < std::size(mRoot) && !mInteriors.empty(); ++i) {
            if (mRoot[i] != nullptr) {  // writes only where it must: the rest has no page yet
                mRoot[i] = nullptr;
            }
        }
        mInteriors.unmapAll();
        mLeafs.unmapAll();
    }

private:
    struct alignas(kPageSize) Interior {
        Leaf* leafs[kLength];
    };
    static_assert(sizeof(Interior) == 2u << 20 && sizeof(Leaf) == 2u << 20);
    // A node, and a page in front of it for the arena's own 16 bytes.
    static constexpr size_t kChunkPages = (sizeof(Leaf) >> kPageShift) + 1;

    static size_t rootIndex(uint64_t k) { return k >> (kLeafBits + kInteriorBits); }
    static size_t interiorIndex(uint64_t k) { return (k >> kLeafBits) & (kLength - 1); }

    template <class Node>
    static Node* load(Node*& node) {
        return std::atomic_ref(node).load(std::memory_order_acquire);
    }

    template <class Node, class Arena>
    static bool grow(Node*& node, Arena& arena) {
        if (node == nullptr) {
            // Not constructed: the system's zero pages are the empty node, and stay untouched.
            auto* made = static_cast<Node*>(arena.take());
            // Release pairs with load(): nobody may see the node before its mapping.
            std::atomic_ref(node).store(made, std::memory_order_release);
        }
        return node != nullptr;
    }

    Interior* mRoot[size_t{1} << kRootBits] = {};
    RecordArena<Interior, kChunkPages> mInteriors;
    RecordArena<Leaf, kChunkPages> mLeafs;
};

using PageMap = PageMap3<52>;

}  // namespace Vantel::Memory
