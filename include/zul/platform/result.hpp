#pragma once

/// `Result<T, E>`: a success carrying a `T` or a failure carrying an `E`.

#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "zul/platform/error.hpp"

namespace zul {

/// The empty type: the value of a `Result<Void>` or `Future<Void>` that carries no value.
struct Void {
    friend constexpr bool operator==(Void, Void) noexcept { return true; }
};

/// Tag that converts to the success case of any `Result` whose value can be made from `T`.
template <class T>
struct Success {
    T value;
};

/// Tag that converts to the failure case of any `Result` whose error can be made from `E`.
template <class E>
struct Failure {
    E error;
};

/// `zul::success(42)` converts to any `Result` whose value type can hold 42.
template <class T>
Success<std::decay_t<T>> success(T&& value) {
    return {std::forward<T>(value)};
}
/// The success of a `Result<Void, E>`.
inline Success<Void> success() { return {Void{}}; }

/// `zul::failure(FutureError::noSuchElement())` converts to any `Result` whose error type can
/// hold that error.
template <class E>
Failure<std::decay_t<E>> failure(E&& error) {
    return {std::forward<E>(error)};
}

template <class T, class E = AnyError>
class Result;

namespace detail {
template <class R>
struct IsResult : std::false_type {};
template <class T, class E>
struct IsResult<Result<T, E>> : std::true_type {};

template <class E>
[[noreturn]] void throwError(const E& error) {
    if constexpr (std::is_same_v<E, AnyError>) {
        error.rethrow();
    } else {
        throw error;
    }
}
}  // namespace detail

/// A success carrying a `T` or a failure carrying an `E`.
///
/// Make one from the tags (`Result<int> r = zul::success(1);`) or with the static
/// `success`/`failure`. Reading the case that is not held stops the process.
template <class T, class E>
class Result {
public:
    using Value = T;
    using Error = E;

    template <class U>
        requires std::is_constructible_v<T, U&&>
    Result(Success<U> s)  // NOLINT(google-explicit-constructor)
        : storage_(std::in_place_index<0>, std::move(s.value)) {}

    template <class G>
        requires std::is_constructible_v<E, G&&>
    Result(Failure<G> f)  // NOLINT(google-explicit-constructor)
        : storage_(std::in_place_index<1>, std::move(f.error)) {}

    static Result success(T value) { return Result(std::in_place_index<0>, std::move(value)); }
    static Result failure(E error) { return Result(std::in_place_index<1>, std::move(error)); }

    bool isSuccess() const noexcept { return storage_.index() == 0; }
    bool isFailure() const noexcept { return storage_.index() == 1; }

    /// The success value; stops the process on a failure.
    const T& value() const& { return *std::get_if<0>(&checked(0)); }
    T& value() & { return *std::get_if<0>(&checked(0)); }
    T&& value() && { return std::move(*std::get_if<0>(&checked(0))); }

    /// The failure error; stops the process on a success.
    const E& error() const& { return *std::get_if<1>(&checked(1)); }
    E& error() & { return *std::get_if<1>(&checked(1)); }
    E&& error() && { return std::move(*std::get_if<1>(&checked(1))); }

    /// The success value, or absent.
    std::optional<T> successValue() const {
        return isSuccess() ? std::optional<T>(value()) : std::nullopt;
    }
    /// The failure error, or absent.
    std::optional<E> failureError() const {
        return isFailure() ? std::optional<E>(error()) : std::nullopt;
    }

    /// The success value; throws the error on a failure.
    const T& get() const& {
        if (isFailure()) detail::throwError(error());
        return value();
    }

    /// A success transformed by `transform`; a failure passes through.
    template <class F>
    auto map(F&& transform) const -> Result<std::invoke_result_t<F&, const T&>, E> {
        if (isSuccess()) return Result<std::invoke_result_t<F&, const T&>, E>::success(transform(value()));
        return Result<std::invoke_result_t<F&, const T&>, E>::failure(error());
    }

    /// A failure's error transformed by `transform`; a success passes through.
    template <class F>
    auto mapError(F&& transform) const -> Result<T, std::invoke_result_t<F&, const E&>> {
        if (isFailure()) return Result<T, std::invoke_result_t<F&, const E&>>::failure(transform(error()));
        return Result<T, std::invoke_result_t<F&, const E&>>::success(value());
    }

    /// The result `transform` makes of a success; a failure passes through.
    template <class F>
        requires detail::IsResult<std::invoke_result_t<F&, const T&>>::value
    auto flatMap(F&& transform) const -> std::invoke_result_t<F&, const T&> {
        if (isSuccess()) return transform(value());
        return std::invoke_result_t<F&, const T&>::failure(error());
    }

    /// The result `transform` makes of a failure's error; a success passes through.
    template <class F>
        requires detail::IsResult<std::invoke_result_t<F&, const E&>>::value
    auto flatMapError(F&& transform) const -> std::invoke_result_t<F&, const E&> {
        if (isFailure()) return transform(error());
        return std::invoke_result_t<F&, const E&>::success(value());
    }

    friend bool operator==(const Result& a, const Result& b)
        requires requires(const T& t, const E& e) { t == t; e == e; }
    {
        return a.storage_ == b.storage_;
    }

private:
    template <std::size_t I, class V>
    Result(std::in_place_index_t<I> tag, V&& v) : storage_(tag, std::forward<V>(v)) {}

    const std::variant<T, E>& checked(std::size_t index) const {
        if (storage_.index() != index) {
            fatalError(index == 0 ? "Result holds a failure, not a value" : "Result holds a success, not an error");
        }
        return storage_;
    }
    std::variant<T, E>& checked(std::size_t index) {
        return const_cast<std::variant<T, E>&>(std::as_const(*this).checked(index));
    }

    std::variant<T, E> storage_;
};

}  // namespace zul
