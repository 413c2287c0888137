#include <gtest/gtest.h>

#include <atomic>
#include <initializer_list>
#include <latch>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "zul/platform/object_cache.hpp"

namespace {

using zul::MemoryPressure;
using zul::ObjectCache;
using Held = std::vector<std::optional<int>>;

// Reads `keys` in order (each read counts as a use) and returns what they hold.
template <class Cache, class Key>
Held values(const Cache& cache, std::initializer_list<Key> keys) {
    Held result;
    for (const Key& key : keys) result.push_back(cache->object(key));
    return result;
}

TEST(ObjectCacheTest, StoresReplacesRemovesAndCountsCost) {
    auto cache = ObjectCache<int, std::string>::create();
    using Tally = std::pair<std::size_t, std::size_t>;  // count, total cost
    const auto tally = [&] { return Tally{cache->count(), cache->totalCost()}; };
    // No limits at first: all of these stay. Enough of them to grow every shard.
    for (int i = 0; i < 1000; ++i) cache->setObject(i, "v" + std::to_string(i), 2);
    EXPECT_EQ(tally(), (Tally{1000, 2000}));
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(cache->object(i), "v" + std::to_string(i)) << i;

    cache->setObject(7, "seven", 5);  // replaces: one entry, the new cost
    EXPECT_EQ(cache->object(7), "seven");
    EXPECT_EQ(tally(), (Tally{1000, 2003}));

    EXPECT_TRUE(cache->removeObject(7));
    EXPECT_FALSE(cache->removeObject(7));
    EXPECT_EQ(tally(), (Tally{999, 1998}));

    // Reading in place runs on the stored value and returns what the reader returns.
    const auto size = [](const std::string& v) { return v.size(); };
    EXPECT_EQ(cache->read(8, size), 2u);
    EXPECT_EQ(cache->read(7, size), std::nullopt);

    cache->removeAllObjects();
    EXPECT_EQ(tally(), (Tally{0, 0}));
    EXPECT_EQ(cache->object(8), std::nullopt);
    cache->setObject(8, "again");  // usable after being emptied
    EXPECT_EQ(cache->object(8), "again");
}

struct ByLength {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept { return s.size(); }  // collides a lot
};
struct SameText {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const noexcept { return a == b; }
};

TEST(ObjectCacheTest, EqualityDecidesAmongCollidingHashesAndTransparentProbesNeedNoKey) {
    auto cache = ObjectCache<std::string, int, ByLength, SameText>::create();
    cache->setObject("abc", 1);
    cache->setObject("xyz", 2);  // same hash, another key
    cache->setObject(std::string("ab") + "c", 3);  // an equal key built elsewhere replaces
    EXPECT_EQ(cache->count(), 2u);
    EXPECT_EQ(cache->object(std::string_view("abc")), 3);
    EXPECT_EQ(cache->object(std::string_view("xyz")), 2);
    EXPECT_EQ(cache->object(std::string_view("abd")), std::nullopt);
    EXPECT_TRUE(cache->removeObject(std::string_view("xyz")));
    EXPECT_EQ(cache->object(std::string("abc")), 3);
    EXPECT_EQ(cache->object(std::string("xyz")), std::nullopt);
}

TEST(ObjectCacheTest, CountLimitEvictsTheLeastRecentlyUsedAndSparesWhatWasRead) {
    auto cache = ObjectCache<int, int>::create();
    cache->setCountLimit(3);
    for (int key : {1, 2, 3}) cache->setObject(key, key * 10);
    EXPECT_EQ(cache->object(1), 10);  // read: spared once
    cache->setObject(4, 40);
    EXPECT_EQ(cache->count(), 3u);
    EXPECT_EQ(values(cache, {2, 1, 3, 4}), (Held{std::nullopt, 10, 30, 40}));  // 2: the oldest not read

    // Now 1, 3 and 4 have all been read: each is spared once, in age order, and the newcomer,
    // not yet read, goes: one-off inserts cannot flush entries in use.
    cache->setObject(5, 50);
    EXPECT_EQ(cache->count(), 3u);
    EXPECT_EQ(cache->object(5), std::nullopt);
    // Having been spared, they are plain old entries again: the oldest of them, 3, goes next.
    cache->setObject(6, 60);
    EXPECT_EQ(values(cache, {3, 6, 4, 1}), (Held{std::nullopt, 60, 40, 10}));

    // Lowering the limit evicts at once; 0 lifts it.
    cache->setCountLimit(1);
    EXPECT_EQ(cache->count(), 1u);
    cache->setCountLimit(0);
    for (int i = 100; i < 400; ++i) cache->setObject(i, i);
    EXPECT_EQ(cache->count(), 301u);
}

TEST(ObjectCacheTest, CostLimitEvictsOldestFirstAndDropsAnEntryThatAloneExceedsIt) {
    auto cache = ObjectCache<std::string, int>::create();
    cache->setTotalCostLimit(10);
    cache->setObject("a", 1, 4);
    cache->setObject("b", 2, 4);
    cache->setObject("c", 3, 4);  // 12 > 10: "a" goes
    EXPECT_EQ(cache->object("a"), std::nullopt);
    EXPECT_EQ(cache->totalCost(), 8u);
    cache->setObject("b", 22, 1);  // a replacement that costs less makes room; it counts as a use
    cache->setObject("d", 4, 5);   // 1 + 4 + 5 = 10: within the limit
    EXPECT_EQ(cache->count(), 3u);
    EXPECT_EQ(cache->totalCost(), 10u);

    // More than the whole limit: entries go oldest first until the cache is within it, the new
    // one too. "b", replaced since it was stored, is spared once, and after "c" and "d" the new
    // entry is the oldest.
    cache->setObject("huge", 5, 11);
    EXPECT_EQ(values(cache, {"huge", "c", "d", "b"}), (Held{std::nullopt, std::nullopt, std::nullopt, 22}));
    EXPECT_EQ(cache->count(), 1u);
    EXPECT_EQ(cache->totalCost(), 1u);

    // Both limits at once: whichever is passed evicts.
    cache->setCountLimit(2);
    for (const char* key : {"x", "y", "z"}) cache->setObject(key, 1, 1);
    EXPECT_EQ(cache->count(), 2u);
    EXPECT_EQ(cache->object("x"), std::nullopt);
}

TEST(ObjectCachePressureTest, ModerateDropsTheOlderHalfAndCriticalEverythingOfEveryLiveCache) {
    std::weak_ptr<ObjectCache<int, int>> gone;
    {
        auto dropped = ObjectCache<int, int>::create();
        dropped->setObject(1, 1);
        gone = dropped;
    }
    EXPECT_TRUE(gone.expired());  // the pressure listener holds caches weakly
    for (int i = 0; i < 200; ++i) ObjectCache<int, int>::create()->setObject(i, i);  // made and dropped

    auto cache = ObjectCache<int, int>::create();
    for (int i = 0; i < 160; ++i) cache->setObject(i, i);
    MemoryPressure::signal(MemoryPressure::Level::moderate);
    // Every shard drops the older half of its entries, rounded up: with 16 shards at most 80
    // remain and at least (160 - 16) / 2.
    EXPECT_LE(cache->count(), 80u);
    EXPECT_GE(cache->count(), 72u);
    EXPECT_EQ(cache->object(0), std::nullopt);  // the oldest of its shard
    EXPECT_EQ(cache->object(159), 159);         // the newest of its shard

    MemoryPressure::signal(MemoryPressure::Level::critical);
    EXPECT_EQ(cache->count(), 0u);
}

// Values whose destructor reads their own key: entries must be destroyed after the shard's
// lock is released, or replacing, removing, evicting or dropping one would deadlock on it.
struct Reentrant {
    std::shared_ptr<ObjectCache<int, std::shared_ptr<Reentrant>>>* cache;
    int key;
    std::atomic<int>* destroyed;
    ~Reentrant() {
        (*cache)->object(key);
        destroyed->fetch_add(1);
    }
};

TEST(ObjectCacheTest, ValuesAreDestroyedOutsideTheLockSoTheirDestructorsMayUseTheCache) {
    auto cache = ObjectCache<int, std::shared_ptr<Reentrant>>::create();
    std::atomic<int> destroyed{0};
    auto store = [&](int key) { cache->setObject(key, std::make_shared<Reentrant>(&cache, key, &destroyed)); };
    store(0);
    store(0);  // replaced
    EXPECT_EQ(destroyed.load(), 1);
    cache->removeObject(0);
    EXPECT_EQ(destroyed.load(), 2);
    cache->setCountLimit(2);
    for (int key = 1; key <= 4; ++key) store(key);  // 1 and 2 evicted
    EXPECT_EQ(destroyed.load(), 4);
    MemoryPressure::signal(MemoryPressure::Level::moderate);
    MemoryPressure::signal(MemoryPressure::Level::critical);
    EXPECT_EQ(destroyed.load(), 6);
    store(5);
    cache->removeAllObjects();
    EXPECT_EQ(destroyed.load(), 7);
}

TEST(ObjectCacheTest, ConcurrentReadersAndWritersSeeOnlyWholeValues) {
    auto cache = ObjectCache<int, std::string>::create();
    cache->setCountLimit(48);  // evictions run alongside
    constexpr int kThreads = 4;
    constexpr int kKeys = 64;
    constexpr int kRounds = 20000;
    // A value is its key repeated: a torn or misplaced value would not read back as one.
    auto valueFor = [](int key, int round) {
        return std::to_string(key) + ":" + std::string(static_cast<std::size_t>(16 + round % 32), 'x');
    };
    std::atomic<int> bad{0};
    std::atomic<int> hits{0};
    std::latch start(kThreads + 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int r = 0; r < kRounds; ++r) {
                const int key = (r * 7 + t * 13) % kKeys;
                const int operation = (r + t) % 4;
                if (operation == 0) {
                    cache->setObject(key, valueFor(key, r), static_cast<std::size_t>(r % 3));
                } else if (operation == 3 && r % 16 == 3) {
                    cache->removeObject(key);
                } else if (auto v = cache->object(key)) {
                    hits.fetch_add(1, std::memory_order_relaxed);
                    const bool whole = v->starts_with(std::to_string(key) + ":") &&
                                       v->find_first_not_of('x', v->find(':') + 1) == std::string::npos;
                    if (!whole) bad.fetch_add(1);
                }
            }
        });
    }
    std::thread pressure([&] {  // pressure signalled from yet another thread
        start.arrive_and_wait();
        for (int i = 0; i < 50; ++i) {
            MemoryPressure::signal(i % 10 == 9 ? MemoryPressure::Level::critical : MemoryPressure::Level::moderate);
            std::this_thread::yield();
        }
    });
    for (auto& thread : threads) thread.join();
    pressure.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(hits.load(), 0);
    EXPECT_LE(cache->count(), 48u);
    std::size_t present = 0;
    for (int key = 0; key < kKeys; ++key) present += cache->object(key).has_value() ? 1u : 0u;
    EXPECT_EQ(present, cache->count());  // the bookkeeping agrees with the table
}

}  // namespace
