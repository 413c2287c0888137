// The untyped part of ObjectCache: 16 shards, each a chained hash table threaded on a recency
// list, under its own mutex.
//
// Eviction is approximate LRU at the cost of FIFO. Entries are stamped from one counter when
// they are stored, and each shard lists its entries newest first. To evict, the shard whose
// oldest entry has the smallest stamp is chosen (each shard publishes that stamp in an atomic,
// so choosing takes no lock), and the CLOCK rule applies to that entry: if it has been read
// since it was stored it is spared once (moved to the front, stamped anew) and the choice is
// made again; otherwise it goes. Reads thus only set a flag on the entry they already hold under
// the lock, and pay nothing to keep an exact order, which would need a list update per read.
//
// Entries leave the table under the lock and are destroyed after it is released: a value's
// destructor may do anything, including using this cache.

#include <algorithm>
#include <mutex>
#include <vector>

#include "zul/platform/object_cache.hpp"

namespace zul::detail {

namespace {

constexpr std::uint64_t kEmpty = ~std::uint64_t{0};
constexpr std::size_t kFirstBuckets = 8;

std::size_t sizeOf(const CacheShard& shard) noexcept { return shard.count.load(std::memory_order_relaxed); }

CacheNode*& bucketOf(CacheShard& shard, std::uint64_t hash) noexcept {
    return shard.buckets[(hash >> 1) & (shard.buckets.size() - 1)];
}

// Keeps the table at most one entry per bucket on average. May throw before changing anything.
void reserveOneMore(CacheShard& shard) {
    if (sizeOf(shard) < shard.buckets.size()) return;
    std::vector<CacheNode*> grown(std::max(kFirstBuckets, 2 * shard.buckets.size()), nullptr);
    shard.buckets.swap(grown);
    for (CacheNode* node = shard.newest; node != nullptr; node = node->older) {
        CacheNode*& head = bucketOf(shard, node->hash());
        node->chain = head;
        head = node;
    }
}

void publishOldest(CacheShard& shard) noexcept {
    shard.oldestStamp.store(shard.oldest != nullptr ? shard.oldest->stamp : kEmpty, std::memory_order_relaxed);
}

void pushNewest(CacheShard& shard, CacheNode* node) noexcept {
    node->older = shard.newest;
    node->newer = nullptr;
    if (shard.newest != nullptr) shard.newest->newer = node;
    shard.newest = node;
    if (shard.oldest == nullptr) shard.oldest = node;
}

void unlinkFromList(CacheShard& shard, CacheNode* node) noexcept {
    (node->newer != nullptr ? node->newer->older : shard.newest) = node->older;
    (node->older != nullptr ? node->older->newer : shard.oldest) = node->newer;
}

void addCost(CacheShard& shard, std::size_t add, std::size_t take) noexcept {
    shard.cost.store(shard.cost.load(std::memory_order_relaxed) + add - take, std::memory_order_relaxed);
}

// Links a new entry into its bucket and at the front of the list.
void link(CacheShard& shard, CacheNode* node) noexcept {
    CacheNode*& head = bucketOf(shard, node->hash());
    node->chain = head;
    head = node;
    pushNewest(shard, node);
    shard.count.store(sizeOf(shard) + 1, std::memory_order_relaxed);
    addCost(shard, node->cost, 0);
    publishOldest(shard);
}

// Takes an entry out of its bucket and the list; the caller destroys it after unlocking.
void unlink(CacheShard& shard, CacheNode* node) noexcept {
    for (CacheNode** at = &bucketOf(shard, node->hash()); *at != nullptr; at = &(*at)->chain) {
        if (*at == node) {
            *at = node->chain;
            break;
        }
    }
    unlinkFromList(shard, node);
    node->chain = nullptr;
    shard.count.store(sizeOf(shard) - 1, std::memory_order_relaxed);
    addCost(shard, 0, node->cost);
    publishOldest(shard);
}

// Takes every entry out; returns them linked through `chain`, and the bucket array.
CacheNode* takeAll(CacheShard& shard, std::vector<CacheNode*>& oldBuckets) noexcept {
    CacheNode* garbage = nullptr;
    for (CacheNode* node = shard.newest; node != nullptr; node = node->older) {
        node->chain = garbage;
        garbage = node;
    }
    shard.newest = shard.oldest = nullptr;
    oldBuckets.swap(shard.buckets);
    shard.count.store(0, std::memory_order_relaxed);
    shard.cost.store(0, std::memory_order_relaxed);
    publishOldest(shard);
    return garbage;
}

}  // namespace

ObjectCacheCore::~ObjectCacheCore() { removeAllObjects(); }

void ObjectCacheCore::destroyAll(CacheNode* garbage) const noexcept {
    while (garbage != nullptr) {
        CacheNode* next = garbage->chain;
        destroy_(garbage);
        garbage = next;
    }
}

std::size_t ObjectCacheCore::count() const noexcept {
    std::size_t total = 0;
    for (const CacheShard& shard : shards_) total += sizeOf(shard);
    return total;
}

std::size_t ObjectCacheCore::totalCost() const noexcept {
    std::size_t total = 0;
    for (const CacheShard& shard : shards_) total += shard.cost.load(std::memory_order_relaxed);
    return total;
}

void ObjectCacheCore::setCountLimit(std::size_t limit) {
    countLimit_.store(limit, std::memory_order_relaxed);
    enforceLimits();
}

void ObjectCacheCore::setTotalCostLimit(std::size_t limit) {
    costLimit_.store(limit, std::memory_order_relaxed);
    enforceLimits();
}

void ObjectCacheCore::store(std::uint64_t hash, std::size_t cost, FunctionRef<Match(CacheNode&)> match,
                            FunctionRef<CacheNode*()> make) {
    CacheShard& shard = shardOf(hash);
    CacheNode* replaced = nullptr;
    {
        std::lock_guard lock(shard.mutex);
        reserveOneMore(shard);
        CacheNode* same = nullptr;
        Match found = Match::other;
        for (CacheNode* node = bucketOf(shard, hash); node != nullptr; node = node->chain) {
            if (node->hash() == hash && (found = match(*node)) != Match::other) {
                same = node;
                break;
            }
        }
        if (found == Match::updated) {
            // A new value in place counts as a use of the entry, as a read does: it keeps its
            // place in the recency list and is spared once by eviction. Moving it to the front
            // would touch its neighbours, two more cache misses on every replacement.
            same->markReferenced();
            addCost(shard, cost, same->cost);
            same->cost = cost;
        } else {
            CacheNode* node = make();  // may throw: nothing has changed yet
            node->hashAndFlag = hash;
            node->cost = cost;
            node->stamp = clock_.fetch_add(1, std::memory_order_relaxed);
            if (same != nullptr) {
                unlink(shard, same);
                replaced = same;
            }
            link(shard, node);
        }
    }
    destroyAll(replaced);
    enforceLimits();
}

bool ObjectCacheCore::remove(std::uint64_t hash, FunctionRef<bool(const CacheNode&)> sameKey) {
    CacheShard& shard = shardOf(hash);
    CacheNode* removed = nullptr;
    {
        std::lock_guard lock(shard.mutex);
        for (CacheNode* node = shard.bucketHead(hash); node != nullptr; node = node->chain) {
            if (node->hash() == hash && sameKey(*node)) {
                removed = node;
                break;
            }
        }
        if (removed == nullptr) return false;
        unlink(shard, removed);
    }
    destroyAll(removed);
    return true;
}

void ObjectCacheCore::removeAllObjects() noexcept {
    for (CacheShard& shard : shards_) {
        std::vector<CacheNode*> buckets;  // freed after the lock is released too
        CacheNode* garbage = nullptr;
        {
            std::lock_guard lock(shard.mutex);
            garbage = takeAll(shard, buckets);
        }
        destroyAll(garbage);
    }
}

void ObjectCacheCore::didReceiveMemoryPressure(MemoryPressure::Level level) {
    if (level == MemoryPressure::Level::critical) {
        removeAllObjects();
        return;
    }
    for (CacheShard& shard : shards_) {
        CacheNode* garbage = nullptr;
        {
            std::lock_guard lock(shard.mutex);
            for (std::size_t drop = (sizeOf(shard) + 1) / 2; drop > 0; --drop) {
                CacheNode* victim = shard.oldest;
                unlink(shard, victim);
                victim->chain = garbage;
                garbage = victim;
            }
        }
        destroyAll(garbage);
    }
}

void ObjectCacheCore::enforceLimits() {
    const std::size_t countLimit = countLimit_.load(std::memory_order_relaxed);
    const std::size_t costLimit = costLimit_.load(std::memory_order_relaxed);
    if (countLimit == 0 && costLimit == 0) return;
    while ((countLimit != 0 && count() > countLimit) || (costLimit != 0 && totalCost() > costLimit)) {
        if (!evictOne()) return;
    }
}

bool ObjectCacheCore::evictOne() {
    // Each round looks at the oldest entry of all: one that was read since it was stored is
    // spared (moved to the front of its shard with a new stamp) and the choice made again. Reads
    // on other threads may keep setting flags, so after kMaxSpared rounds the oldest goes anyway.
    constexpr std::size_t kMaxSpared = 64;
    for (std::size_t round = 0; round <= kMaxSpared + shards_.size(); ++round) {
        CacheShard* chosen = nullptr;
        std::uint64_t oldestStamp = kEmpty;
        for (CacheShard& shard : shards_) {
            const std::uint64_t stamp = shard.oldestStamp.load(std::memory_order_relaxed);
            if (stamp < oldestStamp) {
                oldestStamp = stamp;
                chosen = &shard;
            }
        }
        if (chosen == nullptr) return false;

        CacheShard& shard = *chosen;
        CacheNode* victim = nullptr;
        {
            std::lock_guard lock(shard.mutex);
            CacheNode* oldest = shard.oldest;
            if (oldest == nullptr) continue;  // emptied since it was chosen
            if (oldest->referenced() && round < kMaxSpared) {
                unlinkFromList(shard, oldest);
                oldest->clearReferenced();
                oldest->stamp = clock_.fetch_add(1, std::memory_order_relaxed);
                pushNewest(shard, oldest);
                publishOldest(shard);
                continue;
            }
            victim = oldest;
            unlink(shard, victim);
        }
        destroyAll(victim);
        return true;
    }
    return false;
}

}  // namespace zul::detail
