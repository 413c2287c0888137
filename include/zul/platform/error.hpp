#pragma once

/// Errors: the `Error` base every library error derives from, `AnyError` (a copyable holder of
/// any error), and `fatalError`, which stops the process on a programming error.

#include <concepts>
#include <exception>
#include <memory>
#include <source_location>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>

namespace zul {

/// Base of every error type of the library.
///
/// Error types are small copyable values (one class per component, cases made by static
/// functions such as `FutureError::noSuchElement()`), thrown as exceptions where an operation
/// throws and carried in `Result` or `AnyError` where failures are values.
class Error : public std::exception {
public:
    /// The error as a person reads it. For error enumerations this is the case as written in
    /// code, for example "noSuchElement". Defaults to `what()`.
    virtual std::string description() const { return what(); }
};

/// Stops the process: writes "Fatal error: <message>: file <file>, line <line>" to standard
/// error and aborts. For programming errors only; never for bad input.
[[noreturn]] void fatalError(std::string_view message = {},
                             std::source_location where = std::source_location::current());

/// A copyable holder of any error, the failure type of futures and of `Result<T>`'s default.
///
/// Holds any value derived from `std::exception`; shares it on copy. Test it with `is<E>()`,
/// read it with `as<E>()` (a pointer, null when it holds another type), rethrow it as its
/// concrete type with `rethrow()`.
class AnyError {
public:
    /// Holds a copy of `error`.
    template <class E>
        requires(std::derived_from<std::remove_cvref_t<E>, std::exception> &&
                 !std::same_as<std::remove_cvref_t<E>, AnyError>)
    AnyError(E&& error)  // NOLINT(google-explicit-constructor): errors convert like Swift's `any Error`
        : error_(std::make_shared<const std::remove_cvref_t<E>>(std::forward<E>(error))),
          rethrow_(&throwAs<std::remove_cvref_t<E>>) {}

    /// Holds the exception being handled; call it inside a `catch` block. An exception not
    /// derived from `std::exception` is held and rethrown as it is, and reads as "unknown error".
    static AnyError current();

    /// Holds the exception `exception` points to (it must not be null).
    static AnyError fromException(std::exception_ptr exception);

    /// True when the held error is an `E` or derives from it.
    template <class E>
    bool is() const noexcept { return as<E>() != nullptr; }

    /// The held error as an `E`, or null when it is not one.
    template <class E>
    const E* as() const noexcept { return dynamic_cast<const E*>(error_.get()); }

    /// The held error as a `std::exception`.
    const std::exception& value() const noexcept { return *error_; }

    /// The dynamic type of the held error.
    const std::type_info& type() const noexcept { return typeid(*error_); }

    /// `description()` of a held `zul::Error`, `what()` of any other exception.
    std::string description() const;

    /// Throws the held error as its concrete type.
    [[noreturn]] void rethrow() const;

private:
    AnyError(std::shared_ptr<const std::exception> error, std::exception_ptr foreign);

    template <class E>
    [[noreturn]] static void throwAs(const AnyError& self) { throw static_cast<const E&>(*self.error_); }
    [[noreturn]] static void throwForeign(const AnyError& self);

    std::shared_ptr<const std::exception> error_;
    void (*rethrow_)(const AnyError&);
    std::exception_ptr foreign_;  // set when made from a caught exception
};

}  // namespace zul
