#pragma once

/// Weak references: `WeakRef<T>` holds an object without keeping it alive, `WeakRefArray<T>` is
/// an append-only list of them, for observer lists and the like.
///
///     zul::WeakRefArray<Listener> listeners;
///     listeners.append(listener);                       // does not extend its life
///     for (const auto& l : listeners) if (l) l->notify();   // a destroyed one reads as null
///
/// Neither locks: use one from one thread at a time, or guard it. Reading an object that
/// another thread is destroying is safe: the read sees it alive (and then keeps it so) or null.

#include <compare>
#include <cstddef>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace zul {

/// A weak reference to an object owned by `std::shared_ptr`.
///
/// It never changes after it is made, so it is a plain copyable value: copies refer to the same
/// object, exactly as shared references to one immutable wrapper would.
template <class T>
    requires std::is_object_v<T>
class WeakRef {
public:
    /// A reference to nothing.
    WeakRef() noexcept = default;
    /// Refers to `value` (which may be null) without keeping it alive.
    explicit WeakRef(const std::shared_ptr<T>& value) noexcept : value_(value) {}

    /// The object while it exists, else null.
    std::shared_ptr<T> value() const noexcept { return value_.lock(); }

private:
    std::weak_ptr<T> value_;
};

/// An ordered list of weak references. Destroyed objects are not removed: their positions stay
/// and read as null, so `size()` counts them too.
///
/// A read-only random-access range over positions 0 ..< size(): element i is `(*this)[i]`, the
/// object or null. Iterators yield `std::shared_ptr<T>` by value, so they are random-access
/// iterators in the C++20 sense (`std::ranges::random_access_range`) though not writable ones.
template <class T>
    requires std::is_object_v<T>
class WeakRefArray {
public:
    class Iterator;
    using value_type = std::shared_ptr<T>;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using iterator = Iterator;
    using const_iterator = Iterator;

    /// An empty list.
    WeakRefArray() = default;

    /// Appends a weak reference to `object` (which may be null).
    void append(const std::shared_ptr<T>& object) { items_.emplace_back(object); }

    /// The object at `position` while it exists, else null. `position` must be below `size()`.
    std::shared_ptr<T> operator[](std::size_t position) const { return items_[position].value(); }

    /// The number of positions, dead ones included.
    std::size_t size() const noexcept { return items_.size(); }
    std::size_t count() const noexcept { return items_.size(); }
    bool empty() const noexcept { return items_.empty(); }

    /// The references themselves.
    const std::vector<WeakRef<T>>& items() const noexcept { return items_; }

    Iterator begin() const noexcept { return Iterator(items_.data(), 0); }
    Iterator end() const noexcept { return Iterator(items_.data(), static_cast<difference_type>(items_.size())); }

    class Iterator {
    public:
        using iterator_concept = std::random_access_iterator_tag;
        // Elements are made on reading, so to the older iterator requirements (which want
        // references to stored elements) this is only an input iterator.
        using iterator_category = std::input_iterator_tag;
        using value_type = std::shared_ptr<T>;
        using difference_type = std::ptrdiff_t;
        using reference = std::shared_ptr<T>;

        Iterator() noexcept = default;

        std::shared_ptr<T> operator*() const noexcept { return items_[position_].value(); }
        std::shared_ptr<T> operator[](difference_type n) const noexcept { return items_[position_ + n].value(); }

        Iterator& operator++() noexcept { return *this += 1; }
        Iterator operator++(int) noexcept { return std::exchange(*this, *this + 1); }
        Iterator& operator--() noexcept { return *this -= 1; }
        Iterator operator--(int) noexcept { return std::exchange(*this, *this - 1); }
        Iterator& operator+=(difference_type n) noexcept {
            position_ += n;
            return *this;
        }
        Iterator& operator-=(difference_type n) noexcept {
            position_ -= n;
            return *this;
        }
        friend Iterator operator+(Iterator it, difference_type n) noexcept { return it += n; }
        friend Iterator operator+(difference_type n, Iterator it) noexcept { return it += n; }
        friend Iterator operator-(Iterator it, difference_type n) noexcept { return it -= n; }
        friend difference_type operator-(const Iterator& a, const Iterator& b) noexcept {
            return a.position_ - b.position_;
        }
        friend bool operator==(const Iterator& a, const Iterator& b) noexcept { return a.position_ == b.position_; }
        friend auto operator<=>(const Iterator& a, const Iterator& b) noexcept { return a.position_ <=> b.position_; }

    private:
        friend class WeakRefArray;
        Iterator(const WeakRef<T>* items, difference_type position) noexcept : items_(items), position_(position) {}

        const WeakRef<T>* items_ = nullptr;
        difference_type position_ = 0;
    };

private:
    std::vector<WeakRef<T>> items_;
};

}  // namespace zul
