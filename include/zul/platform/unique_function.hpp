#pragma once

#include <cstddef>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

namespace zul {

/// A move-only type-erased callable (like C++23's `std::move_only_function`) that stores
/// callables of up to 48 bytes in place, so that
/// the jobs of queues and the callbacks of futures cost no allocation of their own.
template <class Signature>
class UniqueFunction;

template <class R, class... Args>
class UniqueFunction<R(Args...)> {
    static constexpr std::size_t kInlineSize = 48;

    template <class F>
    static constexpr bool kInline = sizeof(F) <= kInlineSize && alignof(F) <= alignof(std::max_align_t) &&
                                    std::is_nothrow_move_constructible_v<F>;

    struct Ops {
        R (*invoke)(void* storage, Args&&... args);
        void (*relocate)(void* to, void* from) noexcept;  // move-construct into `to`, destroy `from`
        void (*destroy)(void* storage) noexcept;
    };

    template <class F>
    static F* target(void* storage) noexcept {
        if constexpr (kInline<F>) {
            return std::launder(static_cast<F*>(storage));
        } else {
            return *static_cast<F**>(storage);
        }
    }

    template <class F>
    static constexpr Ops kOps{
        [](void* s, Args&&... args) -> R { return std::invoke(*target<F>(s), std::forward<Args>(args)...); },
        [](void* to, void* from) noexcept {
            if constexpr (kInline<F>) {
                F* source = target<F>(from);
                ::new (to) F(std::move(*source));
                source->~F();
            } else {
                *static_cast<F**>(to) = *static_cast<F**>(from);
            }
        },
        [](void* s) noexcept {
            if constexpr (kInline<F>) {
                target<F>(s)->~F();
            } else {
                delete target<F>(s);
            }
        },
    };

public:
    UniqueFunction() noexcept = default;
    UniqueFunction(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)

    template <class F>
        requires(!std::is_same_v<std::decay_t<F>, UniqueFunction> && std::is_invocable_r_v<R, std::decay_t<F>&, Args...>)
    UniqueFunction(F&& f) {  // NOLINT(google-explicit-constructor)
        using D = std::decay_t<F>;
        if constexpr (kInline<D>) {
            ::new (static_cast<void*>(storage_)) D(std::forward<F>(f));
        } else {
            *reinterpret_cast<D**>(storage_) = new D(std::forward<F>(f));
        }
        ops_ = &kOps<D>;
    }

    UniqueFunction(UniqueFunction&& other) noexcept : ops_(other.ops_) {
        if (ops_ != nullptr) {
            ops_->relocate(storage_, other.storage_);
            other.ops_ = nullptr;
        }
    }

    UniqueFunction& operator=(UniqueFunction&& other) noexcept {
        if (this != &other) {
            reset();
            if (other.ops_ != nullptr) {
                other.ops_->relocate(storage_, other.storage_);
                ops_ = std::exchange(other.ops_, nullptr);
            }
        }
        return *this;
    }

    UniqueFunction(const UniqueFunction&) = delete;
    UniqueFunction& operator=(const UniqueFunction&) = delete;

    ~UniqueFunction() { reset(); }

    explicit operator bool() const noexcept { return ops_ != nullptr; }

    R operator()(Args... args) { return ops_->invoke(storage_, std::forward<Args>(args)...); }

    void reset() noexcept {
        if (ops_ != nullptr) {
            std::exchange(ops_, nullptr)->destroy(storage_);
        }
    }

private:
    alignas(std::max_align_t) unsigned char storage_[kInlineSize];
    const Ops* ops_ = nullptr;
};

}  // namespace zul
