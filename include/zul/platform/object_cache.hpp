#pragma once

/// An evicting object cache: a thread-safe map that may drop any entry at any time.
///
///     auto posters = zul::ObjectCache<std::string, std::shared_ptr<const Image>>::create();
///     posters->setTotalCostLimit(64 << 20);                  // say, bytes; 0 (the default): no limit
///     posters->setObject(url, image, image->byteSize());     // the cost counts against the limit
///     if (auto image = posters->object(url)) draw(**image);  // absent: never stored, removed or dropped
///
/// Use it for what can be rebuilt: an entry is gone when
/// - the count or total-cost limit is exceeded: the oldest entries go first, except that one
///   read or given a new value since it was stored is spared once, until the cache is within
///   both limits again (an entry that alone costs more than the limit is dropped too);
/// - memory pressure is signalled (`MemoryPressure::signal`, see memory_pressure.hpp): a
///   moderate signal drops the older half of the entries, a critical one all of them.
/// Limits are loose, as under any concurrent cache: a burst of inserts on several threads may
/// pass them briefly, and eviction may drop an entry more than the minimum.
///
/// Every operation is safe from any thread. The cache is split into 16 shards by key hash, each
/// with its own lock, so threads touching different keys rarely wait for each other. A read
/// copies the value out under its shard's lock, so it never sees a value half written; make
/// large values cheap to copy (hold them as `std::shared_ptr<const T>`) or read them in place
/// with `read`. Values that are replaced, removed or dropped are destroyed after the lock is
/// released, so a value's destructor may use the cache.
///
/// Keys are found by `Hash` and `KeyEqual`; when both are transparent (`is_transparent`), the
/// lookups accept anything they can compare with a key, without building a key first.

#include <array>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "zul/platform/detail/function_ref.hpp"
#include "zul/platform/memory_pressure.hpp"

namespace zul {

namespace detail {

/// The bookkeeping of one entry; an entry type derives from it and adds its key and value.
/// The fields a lookup reads (the bucket chain and the hash) come last, next to the key, so that
/// a lookup usually touches one cache line of the entry.
struct CacheNode {
    CacheNode* newer = nullptr;  // its neighbours in its shard's recency list
    CacheNode* older = nullptr;
    std::size_t cost = 0;
    std::uint64_t stamp = 0;     // when it last became the newest entry of the cache
    CacheNode* chain = nullptr;  // the next entry of its hash bucket
    // The mixed hash, whose bit 0 is always clear, and in bit 0 the flag "read since it became
    // the newest", which spares it once from eviction.
    std::uint64_t hashAndFlag = 0;

    std::uint64_t hash() const noexcept { return hashAndFlag & ~std::uint64_t{1}; }
    bool referenced() const noexcept { return (hashAndFlag & 1) != 0; }
    void markReferenced() noexcept {
        if (!referenced()) hashAndFlag |= 1;  // no write once set
    }
    void clearReferenced() noexcept { hashAndFlag &= ~std::uint64_t{1}; }
};

/// One of the 16 parts of a cache: a chained hash table threaded on a recency list, under its
/// own mutex. Lookups run inline in the typed front; everything that changes a shard is in
/// object_cache.cpp.
struct alignas(64) CacheShard {
    std::mutex mutex;
    std::vector<CacheNode*> buckets;  // a power of two long, or empty until the first insert
    CacheNode* newest = nullptr;
    CacheNode* oldest = nullptr;
    // Written under `mutex`; read without it by `count()`, `totalCost()` and eviction.
    std::atomic<std::size_t> count{0};
    std::atomic<std::size_t> cost{0};
    std::atomic<std::uint64_t> oldestStamp{~std::uint64_t{0}};

    /// The first entry of the bucket of `hash`, or null. Call with `mutex` held.
    CacheNode* bucketHead(std::uint64_t hash) const noexcept {
        return buckets.empty() ? nullptr : buckets[(hash >> 1) & (buckets.size() - 1)];
    }
};

/// Everything of `ObjectCache` that does not depend on the key and value types: storing,
/// removing, limits, eviction and memory pressure. Entries are destroyed through the function
/// the typed front supplies.
class ObjectCacheCore : public MemoryPressureResponder {
public:
    ObjectCacheCore(const ObjectCacheCore&) = delete;
    ObjectCacheCore& operator=(const ObjectCacheCore&) = delete;
    ~ObjectCacheCore() override;

    /// The number of entries now (a snapshot; other threads may be changing it).
    std::size_t count() const noexcept;
    /// The sum of the costs of the entries now.
    std::size_t totalCost() const noexcept;

    /// The most entries the cache keeps; 0 (the default) means no limit. Lowering it below the
    /// current count evicts at once.
    std::size_t countLimit() const noexcept { return countLimit_.load(std::memory_order_relaxed); }
    void setCountLimit(std::size_t limit);

    /// The most total cost the cache keeps; 0 (the default) means no limit.
    std::size_t totalCostLimit() const noexcept { return costLimit_.load(std::memory_order_relaxed); }
    void setTotalCostLimit(std::size_t limit);

    /// Drops every entry.
    void removeAllObjects() noexcept;

    /// Moderate: drops the older half of the entries of every shard; critical: all of them.
    void didReceiveMemoryPressure(MemoryPressure::Level level) override;

protected:
    using DestroyNode = void (*)(CacheNode*) noexcept;

    /// What `store` is told about an entry with the same hash.
    enum class Match {
        other,     // another key
        updated,   // the same key, and its value has been swapped for the new one
        replace,   // the same key, to be replaced by a new entry
    };

    explicit ObjectCacheCore(DestroyNode destroy) noexcept : destroy_(destroy) {}

    /// The shard of a mixed hash.
    CacheShard& shardOf(std::uint64_t hash) const noexcept { return shards_[hash >> (64 - kShardBits)]; }

    /// Stores an entry for `hash` costing `cost`. Each entry with that hash is shown to `match`;
    /// when none is the same key (or the one that is asks to be replaced), `make` builds the
    /// new entry. Both run under the shard's lock. Then evicts until within the limits.
    void store(std::uint64_t hash, std::size_t cost, FunctionRef<Match(CacheNode&)> match,
               FunctionRef<CacheNode*()> make);
    /// Removes the entry with `hash` that `sameKey` accepts; answers whether there was one.
    bool remove(std::uint64_t hash, FunctionRef<bool(const CacheNode&)> sameKey);

    /// Spreads a user hash over all bits (integers hash to themselves): the top bits pick the
    /// shard, the low bits from bit 1 the bucket; bit 0 is left clear for the entry's flag.
    static std::uint64_t mix(std::size_t hash) noexcept {
        const std::uint64_t h = static_cast<std::uint64_t>(hash) * 0x9E3779B97F4A7C15ull;
        return (h ^ (h >> 29)) & ~std::uint64_t{1};
    }

private:
    static constexpr unsigned kShardBits = 4;

    void enforceLimits();
    bool evictOne();
    void destroyAll(CacheNode* garbage) const noexcept;  // a list linked through `chain`

    const DestroyNode destroy_;
    std::atomic<std::size_t> countLimit_{0};
    std::atomic<std::size_t> costLimit_{0};
    std::atomic<std::uint64_t> clock_{0};  // orders entries across shards for eviction
    mutable std::array<CacheShard, std::size_t{1} << kShardBits> shards_;
};

template <class H, class E>
concept TransparentLookup = requires {
    typename H::is_transparent;
    typename E::is_transparent;
};

/// What a lookup accepts: a key, or anything the transparent hash can hash.
template <class Probe, class Key, class H, class E>
concept CacheProbe = std::same_as<Probe, Key> || (TransparentLookup<H, E> && std::invocable<const H&, const Probe&>);

}  // namespace detail

template <class Key, class Value, class Hash = std::hash<Key>, class KeyEqual = std::equal_to<Key>>
class ObjectCache final : public detail::ObjectCacheCore {
    static_assert(std::is_copy_constructible_v<Value>, "cached values are copied out to readers");

public:
    /// An empty cache without limits, listening for memory pressure.
    static std::shared_ptr<ObjectCache> create() { return create(Hash(), KeyEqual()); }
    static std::shared_ptr<ObjectCache> create(Hash hash, KeyEqual equal) {
        std::shared_ptr<ObjectCache> cache(new ObjectCache(std::move(hash), std::move(equal)));
        MemoryPressure::addResponder(cache);
        return cache;
    }

    /// A copy of the value stored for `key`, or absent.
    std::optional<Value> object(const Key& key) const { return read(key, copy); }
    template <class Probe>
        requires(!std::same_as<Probe, Key> && detail::CacheProbe<Probe, Key, Hash, KeyEqual>)
    std::optional<Value> object(const Probe& key) const {
        return read(key, copy);
    }

    /// Runs `reader` on the value stored for `key`, in place, and returns what it returns, or
    /// absent when there is no such entry. `reader` runs under the shard's lock: keep it short,
    /// and do not use this cache from inside it.
    template <class Probe, class Reader>
        requires detail::CacheProbe<Probe, Key, Hash, KeyEqual> && std::invocable<Reader&, const Value&>
    auto read(const Probe& key, Reader&& reader) const
        -> std::optional<std::remove_cvref_t<std::invoke_result_t<Reader&, const Value&>>> {
        const std::uint64_t hash = mix(hash_(key));
        detail::CacheShard& shard = shardOf(hash);
        std::lock_guard lock(shard.mutex);
        for (detail::CacheNode* node = shard.bucketHead(hash); node != nullptr; node = node->chain) {
            if (node->hash() != hash) continue;
            const Node& entry = static_cast<const Node&>(*node);
            if (!equal_(entry.key, key)) continue;
            node->markReferenced();
            return std::invoke(reader, entry.value);
        }
        return std::nullopt;
    }

    /// Stores `value` under `key` with `cost`, replacing the entry of an equal key. May evict
    /// other entries, or this one, to stay within the limits.
    void setObject(Key key, Value value, std::size_t cost = 0) {
        storeValue(key, [&] { return std::move(key); }, std::move(value), cost);
    }
    /// The same with a transparent probe the key can be made from; the key is made only when
    /// the entry is new, so replacing a value costs no copy of the key.
    template <class Probe>
        requires(!std::same_as<Probe, Key> && detail::CacheProbe<Probe, Key, Hash, KeyEqual> &&
                 std::constructible_from<Key, const Probe&>)
    void setObject(const Probe& key, Value value, std::size_t cost = 0) {
        storeValue(key, [&] { return Key(key); }, std::move(value), cost);
    }

    /// Removes the entry of `key`; answers whether there was one.
    bool removeObject(const Key& key) { return removeMatching(key); }
    template <class Probe>
        requires(!std::same_as<Probe, Key> && detail::CacheProbe<Probe, Key, Hash, KeyEqual>)
    bool removeObject(const Probe& key) {
        return removeMatching(key);
    }

private:
    struct Node final : detail::CacheNode {
        Node(Key k, Value v) : key(std::move(k)), value(std::move(v)) {}
        const Key key;
        Value value;
    };

    ObjectCache(Hash hash, KeyEqual equal)
        : ObjectCacheCore(&destroyNode), hash_(std::move(hash)), equal_(std::move(equal)) {}

    static void destroyNode(detail::CacheNode* node) noexcept { delete static_cast<Node*>(node); }
    static const Value& copy(const Value& value) noexcept { return value; }  // `read` copies it out

    template <class Probe, class MakeKey>
    void storeValue(const Probe& key, MakeKey makeKey, Value&& value, std::size_t cost) {
        const std::uint64_t hash = mix(hash_(key));
        auto match = [&](detail::CacheNode& node) {
            Node& entry = static_cast<Node&>(node);
            if (!equal_(entry.key, key)) return Match::other;
            if constexpr (std::is_nothrow_swappable_v<Value>) {
                // The old value leaves in `value` and is destroyed after the lock is released.
                using std::swap;
                swap(entry.value, value);
                return Match::updated;
            } else {
                return Match::replace;
            }
        };
        auto make = [&]() -> detail::CacheNode* { return new Node(makeKey(), std::move(value)); };
        store(hash, cost, match, make);
    }

    template <class Probe>
    bool removeMatching(const Probe& key) {
        auto sameKey = [&](const detail::CacheNode& node) {
            return equal_(static_cast<const Node&>(node).key, key);
        };
        return remove(mix(hash_(key)), sameKey);
    }

    [[no_unique_address]] Hash hash_;
    [[no_unique_address]] KeyEqual equal_;
};

}  // namespace zul
