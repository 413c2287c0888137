#pragma once

/// `Result<T, E>`: a success carrying a `T` or a failure carrying an `E`.

#include <optional>
#include <string>
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

    /// A success holding `value` when it is present, else a failure holding `orError`.
    Result(std::optional<T> value, E orError)
        : storage_(value ? std::variant<T, E>(std::in_place_index<0>, std::move(*value))
                         : std::variant<T, E>(std::in_place_index<1>, std::move(orError))) {}

    static Result success(T value) { return Result(std::in_place_index<0>, std::move(value)); }
    static Result failure(E error) { return Result(std::in_place_index<1>, std::move(error)); }

    /// The success of a result without a value.
    static Result succeeded()
        requires std::is_same_v<T, Void>
    {
        return success(Void{});
    }

    /// Runs `body` and collects its outcome: a success with what it returns, or a failure with
    /// what it throws. The conversion of the thrown error to `E` is unconditional: with
    /// `E = AnyError` any exception is taken; with a specific `E`, an exception of another type
    /// is a programming error and stops the process. Bodies that need a soft failure catch
    /// inside.
    template <class F>
        requires std::is_convertible_v<std::invoke_result_t<F&>, T>
    static Result catchToResult(F&& body) {
        try {
            return success(body());
        } catch (...) {
            return failure(currentErrorAs());
        }
    }

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
    std::optional<T> optional() const { return isSuccess() ? std::optional<T>(value()) : std::nullopt; }
    /// The failure error, or absent.
    std::optional<E> maybeError() const { return isFailure() ? std::optional<E>(error()) : std::nullopt; }

    /// Calls `callback` with the value on a success; returns this result.
    template <class F>
    const Result& onSuccess(F&& callback) const {
        if (isSuccess()) callback(value());
        return *this;
    }
    /// Calls `callback` with the error on a failure; returns this result.
    template <class F>
    const Result& onFail(F&& callback) const {
        if (isFailure()) callback(error());
        return *this;
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

    /// The throwing form: `transform` returns a plain value and may throw. What it returns is the
    /// success; what it throws becomes the failure, converted to `E` as `catchToResult` does.
    template <class F>
        requires(!detail::IsResult<std::invoke_result_t<F&, const T&>>::value)
    auto flatMap(F&& transform) const -> Result<std::invoke_result_t<F&, const T&>, E> {
        using Next = Result<std::invoke_result_t<F&, const T&>, E>;
        if (isFailure()) return Next::failure(error());
        return Next::catchToResult([&] { return transform(value()); });
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
    template <class, class>
    friend class Result;

    // The exception being handled, as an `E`; stops the process when it is not one.
    static E currentErrorAs() {
        if constexpr (std::is_same_v<E, AnyError>) {
            return AnyError::current();
        } else {
            try {
                throw;
            } catch (const E& error) {
                return error;
            } catch (const std::exception& other) {
                fatalError(std::string("catchToResult: the body threw \"") + other.what() +
                           "\", which is not of the result's error type");
            } catch (...) {
                fatalError("catchToResult: the body threw a value that is not of the result's error type");
            }
        }
    }

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

/// The value and the error of `result`, exactly one of them present.
template <class T, class E>
std::pair<std::optional<T>, std::optional<E>> convertToTuple(const Result<T, E>& result) {
    return {result.optional(), result.maybeError()};
}

}  // namespace zul
