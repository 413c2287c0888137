#pragma once

/// `OrderedMap<V>`: a map from text to `V` that iterates in insertion order.
///
/// The maps of request parameters and headers are small and are built once and walked once; a
/// flat vector of pairs is the fastest structure for that, and insertion order makes what goes on
/// the wire (query items, JSON keys, headers) follow the order the caller wrote.

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zul {

template <class V>
class OrderedMap {
public:
    using value_type = std::pair<std::string, V>;
    using iterator = typename std::vector<value_type>::iterator;
    using const_iterator = typename std::vector<value_type>::const_iterator;

    OrderedMap() = default;
    /// Later entries with the same key replace earlier ones, keeping the first one's position.
    OrderedMap(std::initializer_list<value_type> entries) {
        entries_.reserve(entries.size());
        for (const auto& entry : entries) insertOrAssign(entry.first, entry.second);
    }

    bool empty() const noexcept { return entries_.empty(); }
    std::size_t size() const noexcept { return entries_.size(); }
    void reserve(std::size_t count) { entries_.reserve(count); }
    void clear() noexcept { entries_.clear(); }

    iterator begin() noexcept { return entries_.begin(); }
    iterator end() noexcept { return entries_.end(); }
    const_iterator begin() const noexcept { return entries_.begin(); }
    const_iterator end() const noexcept { return entries_.end(); }

    iterator find(std::string_view key) noexcept {
        return std::find_if(entries_.begin(), entries_.end(), [&](const value_type& e) { return e.first == key; });
    }
    const_iterator find(std::string_view key) const noexcept {
        return std::find_if(entries_.begin(), entries_.end(), [&](const value_type& e) { return e.first == key; });
    }
    bool contains(std::string_view key) const noexcept { return find(key) != end(); }

    /// The value for `key`, or null.
    const V* get(std::string_view key) const noexcept {
        auto it = find(key);
        return it == end() ? nullptr : &it->second;
    }

    /// Inserts `value` under `key`, or replaces the value already there (keeping its position).
    template <class T>
    V& insertOrAssign(std::string_view key, T&& value) {
        auto it = find(key);
        if (it != end()) {
            it->second = std::forward<T>(value);
            return it->second;
        }
        return entries_.emplace_back(std::string(key), std::forward<T>(value)).second;
    }

    /// Inserts `value` under `key` unless the key is present; returns whether it inserted.
    template <class T>
    bool insertIfAbsent(std::string_view key, T&& value) {
        if (contains(key)) return false;
        entries_.emplace_back(std::string(key), std::forward<T>(value));
        return true;
    }

    /// The value for `key`, inserted default-constructed at the end if absent.
    V& operator[](std::string_view key) {
        auto it = find(key);
        if (it != end()) return it->second;
        return entries_.emplace_back(std::string(key), V{}).second;
    }

    /// Removes `key`; returns whether it was there.
    bool erase(std::string_view key) {
        auto it = find(key);
        if (it == end()) return false;
        entries_.erase(it);
        return true;
    }

    friend bool operator==(const OrderedMap& a, const OrderedMap& b) { return a.entries_ == b.entries_; }

private:
    std::vector<value_type> entries_;
};

}  // namespace zul
