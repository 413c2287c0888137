#include <gtest/gtest.h>

#include <atomic>
#include <concepts>
#include <functional>
#include <latch>
#include <memory>
#include <ranges>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zul/core/cache.hpp"

namespace {

using zul::WeakRef;
using zul::WeakRefArray;
using zul::ZulCache;

// A user-defined key with its own hash, which collides on purpose: equality must decide.
struct EpisodeId {
    int season;
    int episode;
    friend bool operator==(const EpisodeId&, const EpisodeId&) = default;
};

}  // namespace

template <>
struct std::hash<EpisodeId> {
    std::size_t operator()(const EpisodeId& id) const noexcept { return static_cast<std::size_t>(id.season); }
};

namespace {

TEST(ZulCacheTest, ReadsBackWhatWasInsertedUntilReplacedOrRemovedThroughAnyEqualKey) {
    auto cache = ZulCache<std::string, int>::create();
    const std::string stored(40, 'k');  // long enough to live on the heap
    const std::string probe = std::string(39, 'k') + 'k';  // another object, another buffer, the same text
    EXPECT_EQ(cache->value(stored), std::nullopt);  // never stored

    cache->insert(1, stored);
    cache->insert(2, "two");
    EXPECT_EQ(cache->value(probe), 1);
    cache->insert(3, probe);  // replaces
    EXPECT_EQ(cache->value(stored), 3);
    EXPECT_EQ(cache->wrapped().count(), 2u);

    cache->removeValue(std::string(40, 'k'));
    cache->removeValue("absent");  // nothing to remove: no effect
    EXPECT_EQ(cache->value(stored), std::nullopt);
    EXPECT_EQ(cache->value("two"), 2);

    auto episodes = ZulCache<EpisodeId, std::string>::create();
    episodes->insert("pilot", EpisodeId{1, 1});
    episodes->insert("finale", EpisodeId{1, 10});  // same hash, different key
    EXPECT_EQ(episodes->value(EpisodeId{1, 1}), "pilot");
    EXPECT_EQ(episodes->value(EpisodeId{1, 2}), std::nullopt);
    episodes->removeValue(EpisodeId{1, 1});
    EXPECT_EQ(episodes->value(EpisodeId{1, 10}), "finale");
}

TEST(ZulCacheTest, WrappedKeyHashesAsItsKeyAndEqualsOnlyWrappersOfTheSameCacheType) {
    using Wrapped = ZulCache<std::string, int>::WrappedKey;
    const Wrapped a(std::string("key"));
    EXPECT_EQ(a.hashValue(), std::hash<std::string>{}("key"));
    EXPECT_TRUE(a == Wrapped(std::string("key")));
    EXPECT_FALSE(a == Wrapped(std::string("other")));
    // A wrapper of another cache type is another type, even with the same key type: the
    // comparison does not exist.
    static_assert(std::equality_comparable<Wrapped>);
    static_assert(!std::equality_comparable_with<Wrapped, ZulCache<std::string, long>::WrappedKey>);
    static_assert(!std::equality_comparable_with<Wrapped, std::string>);
}

TEST(ZulCacheTest, SubscriptReadsInsertsAndRemoves) {
    auto holder = ZulCache<std::string, int>::create();
    auto& cache = *holder;
    const std::string a = "a", b = "b";
    EXPECT_EQ(std::optional<int>(cache[a]), std::nullopt);

    cache[a] = 1;  // a present value inserts
    cache[b] = std::optional<int>(2);
    EXPECT_EQ(cache[a].value(), 1);
    EXPECT_EQ(cache.value(b), 2);
    cache[a] = std::nullopt;  // absent removes
    cache[b] = std::optional<int>();
    EXPECT_EQ(cache.value(a), std::nullopt);
    EXPECT_EQ(cache.value(b), std::nullopt);

    cache[b] = 3;
    cache[a] = cache[b];  // copies the value across
    EXPECT_EQ(std::as_const(cache)[a], 3);
    cache[b] = std::nullopt;
    cache[a] = cache[b];  // copies the absence across: removes
    EXPECT_EQ(cache.value(a), std::nullopt);
}

// How the store evicts, and drops entries under memory pressure, is the object cache's own; here,
// that the limits and costs reach it.
TEST(ZulCacheTest, LimitsAndCostsReachTheStore) {
    auto cache = ZulCache<std::string, std::string>::create();
    cache->setCountLimit(2);
    cache->setTotalCostLimit(100);
    cache->insert("poster", "a", 60);
    cache->insert("trailer", "b", 60);  // over the cost limit: "a" goes
    EXPECT_EQ(cache->value("a"), std::nullopt);
    EXPECT_EQ(cache->wrapped().totalCost(), 60u);
    cache->insert("clip", "c");
    cache->insert("still", "d");  // over the count limit: "b", the oldest, goes
    EXPECT_EQ(cache->value("b"), std::nullopt);
    EXPECT_EQ(cache->value("d"), "still");
}

TEST(ZulCacheTest, ConcurrentReadersAndWritersFromSeveralThreads) {
    auto cache = ZulCache<std::string, std::string>::create();
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    std::atomic<int> bad{0};
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int r = 0; r < kRounds; ++r) {
                const std::string key = "title-" + std::to_string((r + t) % 32);
                if (r % 3 == 0) {
                    (*cache)[key] = key + "/" + std::to_string(r);  // a value names its key
                } else if (r % 97 == 0) {
                    cache->removeValue(key);
                } else if (auto value = cache->value(key); value && !value->starts_with(key + "/")) {
                    bad.fetch_add(1);
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(bad.load(), 0);
}

struct Listener {
    int id;
};

TEST(WeakRefTest, ReadsTheObjectWhileItLivesAndNullAfterEvenWhenTheReadRacesTheLastOwner) {
    EXPECT_EQ(WeakRef<Listener>().value(), nullptr);
    for (int round = 0; round < 200; ++round) {
        auto owner = std::make_shared<std::string>("alive");
        const WeakRef<std::string> ref(owner);
        ASSERT_EQ(ref.value(), owner);
        ASSERT_EQ(owner.use_count(), 1);  // holding it weakly does not keep it
        std::atomic<bool> wrong{false};
        std::thread reader([&] {  // sees the object whole or null
            for (int i = 0; i < 50; ++i) {
                if (auto object = ref.value(); object && *object != "alive") wrong = true;
            }
        });
        owner.reset();
        reader.join();
        EXPECT_FALSE(wrong.load());
        EXPECT_EQ(ref.value(), nullptr);
    }
}

TEST(WeakRefArrayTest, IsARandomAccessRangeWhoseDeadEntriesKeepTheirPositionsAndReadAsNull) {
    static_assert(std::ranges::random_access_range<const WeakRefArray<Listener>>);
    static_assert(std::ranges::sized_range<WeakRefArray<Listener>>);
    static_assert(std::random_access_iterator<WeakRefArray<Listener>::Iterator>);

    WeakRefArray<Listener> array;
    EXPECT_TRUE(array.empty());
    EXPECT_EQ(array.begin(), array.end());
    std::vector<std::shared_ptr<Listener>> owners;
    for (int i = 0; i < 10; ++i) {
        owners.push_back(std::make_shared<Listener>(Listener{i}));
        array.append(owners.back());
    }
    array.append(nullptr);
    owners[4].reset();

    EXPECT_EQ(array.size(), 11u);
    EXPECT_EQ(array[4], nullptr);  // destroyed: still there, absent
    EXPECT_EQ(array[5], owners[5]);
    EXPECT_EQ(array.items()[2].value(), owners[2]);
    std::vector<int> seen;
    for (const auto& listener : array) seen.push_back(listener ? listener->id : -1);
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, -1, 5, 6, 7, 8, 9, -1}));

    auto it = array.begin();
    EXPECT_EQ((*(it + 3))->id, 3);
    EXPECT_EQ(it[7]->id, 7);
    EXPECT_EQ(*(array.end() - 2), owners[9]);
    EXPECT_EQ(array.end() - array.begin(), 11);
    it += 5;
    EXPECT_EQ((*it)->id, 5);
    EXPECT_EQ((*--it), nullptr);  // position 4, destroyed
    EXPECT_LT(array.begin(), it);
}

}  // namespace
