#include "Vantel/Memory/IMemoryPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "memory/cache/CentralCache.h"
#include "memory/cache/PageCache.h"
#include "memory/cache/SystemMemoryAccounting.h"
#include "memory/cache/ThreadCacheManager.h"

namespace {

using namespace Vantel::Memory;

constexpr uint32_t kThreshold = 256;

uint32_t pagesInUse() {
    return SystemMemoryAccounting::instance().pagesInUse();
}

uint64_t objectSize(const void* block) {
    const uint64_t page = reinterpret_cast<uintptr_t>(block) >> kPageShift;
    return PageCache::instance().map().get(page).span()->objSize;
}

/// Runs `body` in a thread that ends: what it frees goes back to the central cache.
template <class Body>
void inThread(Body&& body) {
    std::thread(body).join();
}

/// Random work whose blocks all hold a piece of the same noise, so that a check is a comparison.
/// They pass between threads through slots, which all share.
class Model {
public:
    Model() : mNoise(kLargest + 256) {
        std::mt19937 random(1);
        std::generate(mNoise.begin(), mNoise.end(), [&random] { return random() % 256; });
    }

    void work(unsigned seed, int steps) {
        std::mt19937 random(seed);
        for (int step = 0; step < steps; ++step) {
            Slot& slot = mSlots[random() % mSlots.size()];
            std::lock_guard<std::mutex> guard(slot.mutex);
            if (slot.data == nullptr) {
                make(slot, random);
            } else if (random() % 3 == 0) {
                resize(slot, random);
            } else {
                drop(slot);
            }
        }
    }

    void dropAll() {
        for (Slot& slot : mSlots) {
            drop(slot);
        }
    }

private:
    static constexpr size_t kLargest = size_t{1} << 20;

    struct Slot {
        std::mutex mutex;
        void* data = nullptr;
        size_t size = 0;
        const uint8_t* noise = nullptr;

        void fill() const { std::memcpy(data, noise, size); }
        void check(size_t count) const { EXPECT_EQ(std::memcmp(data, noise, count), 0); }
    };

    /// 0 to 1 MiB, as often small as large.
    static size_t randomSize(std::mt19937& random) {
        return random() % ((size_t{1} << random() % 21) + 1);
    }

    void make(Slot& slot, std::mt19937& random) {
        slot.size = randomSize(random);
        slot.noise = &mNoise[random() % 256];
        slot.data = mPool->allocate(slot.size);
        ASSERT_NE(slot.data, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(slot.data) % 8, 0u);
        slot.fill();
    }

    void resize(Slot& slot, std::mt19937& random) {
        const size_t size = randomSize(random);
        slot.data = mPool->reallocate(slot.data, size);
        ASSERT_EQ(slot.data == nullptr, size == 0);
        if (size > 0) {
            slot.check(std::min(size, slot.size));
            slot.size = size;
            slot.fill();
        }
    }

    void drop(Slot& slot) {
        if (slot.data != nullptr) {
            slot.check(slot.size);
        }
        mPool->deallocate(std::exchange(slot.data, nullptr));
    }

    IMemoryPool* const mPool = IMemoryPool::instance();
    std::vector<uint8_t> mNoise;
    std::array<Slot, 400> mSlots;
};

#if defined(__SANITIZE_THREAD__)  // which sees each byte that is written and checked
constexpr int kRandomSteps = 4000;
#else
constexpr int kRandomSteps = 16000;
#endif

TEST(MemoryPool, RandomWorkKeepsEveryByteAndReturnsEverything) {
    for (const int threadCount : {1, 8}) {
        SCOPED_TRACE(threadCount);
        Model model;
        std::vector<std::thread> threads;
        for (int i = 0; i < threadCount; ++i) {
            threads.emplace_back([&model, i, threadCount] {
                model.work(static_cast<unsigned>(i + 1), kRandomSteps / threadCount);
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_GT(pagesInUse(), kThreshold) << "nothing to give back: the test shows nothing";
        inThread([&model] { model.dropAll(); });  // by one that never allocated
        EXPECT_LE(pagesInUse(), kThreshold);
    }
}

TEST(MemoryPool, SizesAreRoundedToTheirClass) {
    inThread([] {
        IMemoryPool* pool = IMemoryPool::instance();
        const auto check = [pool](size_t size, size_t unit) {
            void* block = pool->allocate(size);
            ASSERT_NE(block, nullptr);
            ASSERT_EQ(objectSize(block), (std::max<size_t>(size, 1) + unit - 1) / unit * unit);
            pool->deallocate(block);
        };
        for (size_t size = 0; size <= 65536; ++size) {
            check(size, size <= 128 ? 8 : size <= 1024 ? 16 : size <= 8192 ? 128 : 1024);
        }
        for (const size_t size : {65537, 128 * 4096, 128 * 4096 + 1}) {
            check(size, 4096);
        }
        EXPECT_EQ(pool->allocate(SIZE_MAX), nullptr);
        EXPECT_EQ(pool->allocate(SIZE_MAX / 2), nullptr);
    });
    EXPECT_EQ(SizeClass::size(SizeClass::kFreeLists), 0u);
    EXPECT_DEATH(SizeClass::index(SizeClass::kMaxSize + 1), "index < kFreeLists");
}

TEST(MemoryPool, ObjectsOfASpanFindBackToTheirPlaces) {
    for (size_t index = 0; index < SizeClass::kFreeLists; ++index) {
        SCOPED_TRACE(index);
        Span span;
        span.pageId = 1000;
        span.pageCount = SizeClass::spanPages(SizeClass::size(index));
        span.cut(SizeClass::size(index));
        std::vector<void*> objects(span.objCount + 1);
        ASSERT_EQ(span.take(objects.size(), objects.data()), span.objCount);
        for (uint64_t i = 0; i < span.objCount; ++i) {
            ASSERT_EQ(objects[i], span.start() + i * span.objSize);
        }
        std::shuffle(objects.begin(), objects.end() - 1, std::mt19937(1));
        ASSERT_EQ(span.put(objects.data(), span.objCount), span.objCount);
        ASSERT_EQ(span.useCount, 0u);
        ASSERT_EQ(span.take(objects.size(), objects.data()), span.objCount);
    }
}

TEST(MemoryPool, ReallocateStaysFromHalfToWholeOfTheObject) {
    inThread([] {
        IMemoryPool* pool = IMemoryPool::instance();
        for (const size_t whole : {size_t{64}, size_t{9216}, size_t{20 * 4096}}) {
            SCOPED_TRACE(whole);
            void* block = pool->reallocate(nullptr, whole);
            std::memset(block, 3, whole);
            EXPECT_EQ(pool->reallocate(block, whole / 2), block);
            EXPECT_EQ(pool->reallocate(block, whole), block);
            EXPECT_EQ(pool->reallocate(block, SIZE_MAX), nullptr);
            auto* moved = static_cast<char*>(pool->reallocate(block, whole / 2 - 1));
            EXPECT_NE(moved, block);
            EXPECT_EQ(std::count(moved, moved + whole / 2 - 1, 3),
                      static_cast<long>(whole / 2 - 1));
            EXPECT_EQ(pool->reallocate(moved, 0), nullptr);
        }
    });
}

TEST(MemoryPool, ListsGrowAndGiveHalfBack) {
    inThread([] {
        IMemoryPool* pool = IMemoryPool::instance();
        pool->deallocate(pool->allocate(8));
        ThreadCache& cache = currentNode->cache;
        const size_t last = SizeClass::index(1024);
        EXPECT_EQ(cache.maxLength(0), 512u);
        EXPECT_EQ(cache.maxLength(last), 4u);

        std::vector<void*> blocks;
        std::vector<size_t> lengths;
        for (int i = 0; i < 200; ++i) {
            blocks.push_back(pool->allocate(1024));
            if (lengths.empty() || lengths.back() != cache.maxLength(last)) {
                lengths.push_back(cache.maxLength(last));
            }
        }
        EXPECT_EQ(lengths, (std::vector<size_t>{6, 9, 13, 19, 28, 42, 63, 64}));
        while (cache.count(last) < 64) {
            pool->deallocate(blocks.back());
            blocks.pop_back();
        }
        pool->deallocate(blocks.back());
        blocks.pop_back();
        EXPECT_EQ(cache.count(last), 33u) << "half of 65 went";
        for (void* block : blocks) {
            pool->deallocate(block);
        }
    });
}

TEST(MemoryPool, AThreadThatEndsGivesItsListsBackAndItsNodeOn) {
    const ThreadCacheNode* first = nullptr;
    inThread([&first] {
        IMemoryPool* pool = IMemoryPool::instance();
        pool->deallocate(pool->allocate(48));
        first = currentNode;
        EXPECT_GT(currentNode->cache.count(SizeClass::index(48)), 0u);
    });
    CentralCache::instance().reclaim();
    testing::internal::CaptureStdout();
    CentralCache::instance().dump(SizeClass::index(48));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "start dump central cache index 5, bytes 48, size 0\n"
              "end dump central cache index 5, free count 0\n");
    inThread([first] {
        IMemoryPool* pool = IMemoryPool::instance();
        pool->deallocate(pool->allocate(48));
        EXPECT_EQ(currentNode, first);
        EXPECT_EQ(currentNode->cache.maxLength(0), 512u);
    });
}

TEST(MemoryPool, PagesGoBackWhileTheThreadLives) {
    inThread([] {
        IMemoryPool* pool = IMemoryPool::instance();
        for (const size_t size : {1100, 5000, 20000, 65536}) {
            SCOPED_TRACE(size);
            std::vector<void*> blocks(32 * 1024 * 1024 / size);
            for (void*& block : blocks) {
                block = pool->allocate(size);
            }
            EXPECT_GT(pagesInUse(), 8000u);
            for (void* block : blocks) {
                pool->deallocate(block);
            }
            // What stays in stock is little, and pins a region at most for each block.
            EXPECT_LE(pagesInUse(), kThreshold + 8 * PageCache::kMaxPages);
        }
    });
    EXPECT_LE(pagesInUse(), kThreshold) << "the stocks go back with the thread";
}

TEST(MemoryPool, FreePagesMergeAcrossTheWholeRegion) {
    inThread([] {
        CentralCache& central = CentralCache::instance();
        PageCache& pages = PageCache::instance();
        central.reclaim();
        pages.releaseFree();
        EXPECT_EQ(pagesInUse(), 0u);

        // One region, cut in three; the middle comes back last and joins both sides.
        Span* spans[3] = {central.allocatePages(60), central.allocatePages(40),
                          central.allocatePages(28)};
        EXPECT_EQ(pagesInUse(), 128u);
        EXPECT_EQ(pages.freePages(), 0u);
        for (const size_t i : {0, 2, 1}) {
            central.releasePages(spans[i]);
        }
        EXPECT_EQ(pages.freePages(), 128u);
        Span* whole = central.allocatePages(128);
        EXPECT_EQ(pagesInUse(), 128u) << "the pieces did not merge";
        central.releasePages(whole);

        // More than a region is unmapped at once; below the threshold a region is kept.
        central.releasePages(central.allocatePages(129));
        EXPECT_EQ(pagesInUse(), 128u);
        EXPECT_EQ(pages.freePages(), 128u);

        // A whole fresh region stays counted as free, until it is unmapped.
        Span* kept = central.allocatePages(128);
        whole = central.allocatePages(128);
        EXPECT_EQ(pages.freePages(), 128u);
        central.releasePages(kept);
        central.releasePages(whole);
        EXPECT_EQ(pages.freePages(), 128u);
        EXPECT_EQ(pagesInUse(), 128u) << "384 pages seemed free, more than the threshold";
        pages.releaseFree();
        EXPECT_EQ(pages.freePages(), 0u);

        // The same after it was cut and joined again.
        central.releasePages(central.allocatePages(128));
        central.releasePages(central.allocatePages(40));
        pages.releaseFree();
        EXPECT_EQ(pages.freePages(), 0u);
    });
}

TEST(MemoryPool, EmptySpansOfAClassKeepNoRegionAboveTheThreshold) {
    inThread([] {
        CentralCache& central = CentralCache::instance();
        central.reclaim();
        PageCache::instance().releaseFree();
        Span* spans[6];
        for (Span*& span : spans) {
            span = central.allocatePages(120);
        }
        const size_t index = SizeClass::index(128);  // whose spans fill the rest of each region
        void* objects[6][256];
        for (auto& ofSpan : objects) {
            ASSERT_EQ(central.fetch(index, 256, ofSpan), 256u);
        }
        for (auto& ofSpan : objects) {
            central.releaseToSpans(index, ofSpan, 256);
        }
        EXPECT_EQ(PageCache::instance().freePages(), 48u);
        for (Span* span : spans) {
            central.releasePages(span);
        }
        EXPECT_LE(pagesInUse(), kThreshold);
    });
}

}  // namespace
