#pragma once

/// `ZulCache<Key, Value>`: a typed in-memory cache that may drop entries at any time, and (from
/// weak_ref.hpp) `WeakRef` and `WeakRefArray`, which hold objects without keeping them alive.
///
///     auto titles = zul::ZulCache<std::string, std::string>::create();
///     titles->insert("Solaris", "tt0069293");
///     if (auto title = titles->value("tt0069293")) show(*title);   // absent once dropped
///     (*titles)["tt0069293"] = std::nullopt;                        // the same as removeValue
///
/// A value read back is the one stored for an equal key, unless the cache has dropped it:
/// entries go when a count or cost limit (none by default) is passed, and when the host signals
/// memory pressure (zul/platform/memory_pressure.hpp). Never keep the only copy of anything in a
/// cache. Every operation is safe from any thread; the cache adds no locking of its own to that
/// of its store, `ObjectCache` (zul/platform/object_cache.hpp), which describes eviction.

#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "zul/core/weak_ref.hpp"
#include "zul/platform/object_cache.hpp"

namespace zul {

/// A key the cache can use: hashable with `std::hash` and comparable with `==`.
template <class Key>
concept CacheKey = std::copy_constructible<Key> && std::equality_comparable<Key> && requires(const Key& key) {
    { std::hash<Key>{}(key) } -> std::convertible_to<std::size_t>;
};

template <CacheKey Key, std::copy_constructible Value>
class ZulCache {
public:
    /// The key as the store holds it. Its hash is the key's hash; it equals exactly the wrappers
    /// of the same cache type (the same `Key` and `Value`) whose keys are equal: comparing it with
    /// anything else does not compile.
    class WrappedKey {
    public:
        explicit WrappedKey(Key key) : key_(std::move(key)) {}
        const Key& key() const noexcept { return key_; }
        std::size_t hashValue() const { return std::hash<Key>{}(key_); }
        friend bool operator==(const WrappedKey& a, const WrappedKey& b) { return a.key_ == b.key_; }

    private:
        Key key_;
    };

    /// A stored value, boxed so that the store holds one kind of object whatever `Value` is.
    class Entry {
    public:
        explicit Entry(Value v) : value(std::move(v)) {}
        Value value;
    };

    /// Hashes and compares a `WrappedKey` as its key, so that a bare key finds its entry exactly
    /// as a fresh `WrappedKey(key)` would, without copying the key into one.
    struct WrappedKeyHash {
        using is_transparent = void;
        std::size_t operator()(const WrappedKey& wrapped) const { return wrapped.hashValue(); }
        std::size_t operator()(const Key& key) const { return std::hash<Key>{}(key); }
    };
    struct WrappedKeyEqual {
        using is_transparent = void;
        bool operator()(const WrappedKey& a, const WrappedKey& b) const { return a == b; }
        bool operator()(const WrappedKey& a, const Key& b) const { return a.key() == b; }
    };

    using Store = ObjectCache<WrappedKey, Entry, WrappedKeyHash, WrappedKeyEqual>;

    /// An empty cache with no count or cost limit.
    static std::shared_ptr<ZulCache> create() { return std::shared_ptr<ZulCache>(new ZulCache()); }

    ZulCache(const ZulCache&) = delete;
    ZulCache& operator=(const ZulCache&) = delete;

    /// Stores `value` under `key`, replacing the value of an equal key.
    void insert(Value value, const Key& key) { insert(std::move(value), key, 0); }
    /// The same, with a cost counted against `totalCostLimit()`.
    void insert(Value value, const Key& key, std::size_t cost) {
        // The store wraps the key in a fresh `WrappedKey` when the entry is new; an entry that
        // is only given a new value keeps its wrapper, so replacing costs no copy of the key.
        wrapped_->setObject(key, Entry(std::move(value)), cost);
    }

    /// The value stored for `key`; absent when it was never stored, was removed or was dropped.
    std::optional<Value> value(const Key& key) const {
        return wrapped_->read(key, [](const Entry& entry) -> const Value& { return entry.value; });
    }

    /// Removes the value stored for `key`, if any.
    void removeValue(const Key& key) { wrapped_->removeObject(key); }

    /// Reading and writing by subscript, for use within one expression (the proxy refers to the
    /// cache and the key):
    ///
    ///     std::optional<Value> v = cache[key];   // value(key)
    ///     cache[key] = value;                    // insert(value, key)
    ///     cache[key] = std::nullopt;             // removeValue(key); so does an empty optional
    class Subscript {
    public:
        operator std::optional<Value>() const { return cache_.value(key_); }  // NOLINT(google-explicit-constructor)
        std::optional<Value> value() const { return cache_.value(key_); }

        Subscript& operator=(const Value& value) {
            cache_.insert(value, key_);
            return *this;
        }
        Subscript& operator=(Value&& value) {
            cache_.insert(std::move(value), key_);
            return *this;
        }
        Subscript& operator=(std::optional<Value> value) {
            if (value) {
                cache_.insert(std::move(*value), key_);
            } else {
                cache_.removeValue(key_);
            }
            return *this;
        }
        Subscript& operator=(std::nullopt_t) {
            cache_.removeValue(key_);
            return *this;
        }
        /// `cache[a] = cache[b]` copies b's value to a, or removes a when b has none.
        Subscript& operator=(const Subscript& other) { return *this = other.value(); }

    private:
        friend class ZulCache;
        Subscript(ZulCache& cache, const Key& key) : cache_(cache), key_(key) {}
        Subscript(const Subscript&) = default;

        ZulCache& cache_;
        const Key& key_;
    };

    Subscript operator[](const Key& key) { return Subscript(*this, key); }
    std::optional<Value> operator[](const Key& key) const { return value(key); }

    /// The store's limits: the most entries, and the most total cost (see `insert` with a cost),
    /// it keeps; 0 means no limit. Both are 0 for a new cache.
    std::size_t countLimit() const noexcept { return wrapped_->countLimit(); }
    void setCountLimit(std::size_t limit) { wrapped_->setCountLimit(limit); }
    std::size_t totalCostLimit() const noexcept { return wrapped_->totalCostLimit(); }
    void setTotalCostLimit(std::size_t limit) { wrapped_->setTotalCostLimit(limit); }

    /// The evicting store underneath, shared with nobody else.
    const Store& wrapped() const noexcept { return *wrapped_; }

private:
    ZulCache() : wrapped_(Store::create()) {}

    const std::shared_ptr<Store> wrapped_;
};

}  // namespace zul
