#pragma once

/// `Future<Value>`: a one-shot asynchronous outcome, a value or an error, delivered once to any
/// number of callbacks, with `map`, `flatMap`, `filter` and `recover`.
///
///     auto answer = zul::Future<int>::create([](auto complete) {
///         std::thread([complete] { complete(zul::success(42)); }).detach();
///     });
///     answer->map([](int v) { return std::to_string(v); })
///           ->onSuccess([](const std::string& text) { /* on the completing thread */ })
///           ->onFailure([](const zul::AnyError& error) { /* ... */ });
///
/// Callbacks run on the thread that completes the future, or at once on the observer's thread when
/// the future is already complete; there is no hop to a queue. A chain of combinators keeps itself
/// alive until its source completes, whether or not the caller holds on to it. Futures cannot be
/// cancelled and have no time-out.
///
/// Completing a future twice is allowed: the second outcome replaces the first for later observers
/// and reaches only the callbacks registered since the first completion.
///
/// Callbacks and transforms must not throw: an exception escaping one propagates to whoever
/// completed the future (or registered the callback, if it was already complete), and the callbacks
/// after it in that delivery are not called.

#include <concepts>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "zul/platform/error.hpp"
#include "zul/platform/result.hpp"
#include "zul/platform/unique_function.hpp"

namespace zul {

/// The errors a future makes itself.
class FutureError final : public Error {
public:
    enum class Kind { emptyInitValue, noSuchElement };

    /// A future was made from an absent value.
    static FutureError emptyInitValue() noexcept { return FutureError(Kind::emptyInitValue); }
    /// A `filter` predicate rejected the value.
    static FutureError noSuchElement() noexcept { return FutureError(Kind::noSuchElement); }

    Kind kind() const noexcept { return kind_; }
    /// The case name: "emptyInitValue" or "noSuchElement".
    const char* what() const noexcept override;

    friend bool operator==(const FutureError& a, const FutureError& b) noexcept { return a.kind_ == b.kind_; }

private:
    explicit FutureError(Kind kind) noexcept : kind_(kind) {}
    Kind kind_;
};

template <class Value>
class Future;

namespace detail {
template <class T>
struct FutureValue {};
template <class T>
struct FutureValue<std::shared_ptr<Future<T>>> {
    using type = T;
};

/// "Future-" followed by a fresh UUID.
std::string makeFutureLabel();
}  // namespace detail

template <class Value>
class Future final : public std::enable_shared_from_this<Future<Value>> {
    static_assert(!std::is_reference_v<Value> && !std::is_void_v<Value>,
                  "use zul::Void for a future without a value");
    struct PrivateTag {
        explicit PrivateTag() = default;
    };

public:
    /// What a future delivers: a value or any error.
    using Outcome = Result<Value, AnyError>;

    /// Completes the future it belongs to; holds that future alive. Copyable, callable from any
    /// thread, any number of times (see the note on completing twice).
    class Completion {
    public:
        void operator()(Outcome outcome) const {
            // A callback may drop the last other reference to the future while it is delivering.
            const std::shared_ptr<Future> keep = future_;
            keep->send(std::move(outcome));
        }

    private:
        friend class Future;
        explicit Completion(std::shared_ptr<Future> future) noexcept : future_(std::move(future)) {}
        std::shared_ptr<Future> future_;
    };

    /// A future completed by `compute`, which is called at once, before `create` returns, with the
    /// future's `Completion`. It may complete at once or keep the completion and call it later.
    template <class Compute>
        requires std::invocable<Compute&, Completion>
    static std::shared_ptr<Future> create(Compute&& compute) {
        auto future = std::make_shared<Future>(PrivateTag{});
        compute(Completion(future));
        return future;
    }

    /// A future completed at once: with the value, or, when it is absent, with
    /// `FutureError::emptyInitValue()`.
    static std::shared_ptr<Future> create(std::optional<Value> value) {
        auto future = std::make_shared<Future>(PrivateTag{});
        if (value) {
            future->send(Outcome::success(std::move(*value)));
        } else {
            future->send(Outcome::failure(FutureError::emptyInitValue()));
        }
        return future;
    }

    /// A future failed at once with `error`.
    static std::shared_ptr<Future> create(AnyError error) {
        auto future = std::make_shared<Future>(PrivateTag{});
        future->send(Outcome::failure(std::move(error)));
        return future;
    }

    /// For a future without a value: the same as `create(compute)`.
    template <class Compute>
        requires(std::same_as<Value, Void> && std::invocable<Compute&, Completion>)
    static std::shared_ptr<Future> signal(Compute&& compute) {
        return create(std::forward<Compute>(compute));
    }

    /// Calls `callback` with the outcome: at once if the future is complete, otherwise when it
    /// completes. Returns this future.
    template <class F>
        requires std::invocable<F&, const Outcome&>
    std::shared_ptr<Future> onResult(F&& callback) {
        observe(Callback(std::forward<F>(callback)));
        return this->shared_from_this();
    }

    /// Calls `callback` with the value if the future succeeds. Returns this future.
    template <class F>
        requires std::invocable<F&, const Value&>
    std::shared_ptr<Future> onSuccess(F&& callback) {
        return onResult([f = std::forward<F>(callback)](const Outcome& outcome) mutable {
            if (outcome.isSuccess()) f(outcome.value());
        });
    }

    /// Calls `callback` with the error if the future fails. Returns this future.
    template <class F>
        requires std::invocable<F&, const AnyError&>
    std::shared_ptr<Future> onFailure(F&& callback) {
        return onResult([f = std::forward<F>(callback)](const Outcome& outcome) mutable {
            if (outcome.isFailure()) f(outcome.error());
        });
    }

    /// A new future with the value transformed by `transform`; a failure passes through. A
    /// transform that returns nothing gives a `Future<Void>`.
    ///
    /// On a `Future<Void>`, `map` with a callback that takes no argument registers it with
    /// `onSuccess` and returns this same future.
    template <class F>
    auto map(F&& transform) {
        if constexpr (std::is_same_v<Value, Void> && std::is_invocable_v<F&>) {
            return onSuccess([f = std::forward<F>(transform)](const Void&) mutable { f(); });
        } else {
            using R = std::invoke_result_t<F&, const Value&>;
            using T = std::conditional_t<std::is_void_v<R>, Void, std::decay_t<R>>;
            using Next = Future<T>;
            // The same as flatMap with a transform returning an already completed future, without
            // making that intermediate future.
            return Next::create([&](typename Next::Completion done) {
                observe([done = std::move(done), f = std::forward<F>(transform)](const Outcome& outcome) mutable {
                    if (outcome.isFailure()) {
                        done(Next::Outcome::failure(outcome.error()));
                    } else if constexpr (std::is_void_v<R>) {
                        f(outcome.value());
                        done(Next::Outcome::success(Void{}));
                    } else {
                        done(Next::Outcome::success(f(outcome.value())));
                    }
                });
            });
        }
    }

    /// A new future that takes the outcome of the future `transform` makes from the value; a
    /// failure passes through without calling `transform`.
    template <class F>
        requires std::invocable<F&, const Value&>
    auto flatMap(F&& transform) {
        using Inner = std::decay_t<std::invoke_result_t<F&, const Value&>>;
        using Next = Future<typename detail::FutureValue<Inner>::type>;
        return Next::create([&](typename Next::Completion done) {
            observe([done = std::move(done), f = std::forward<F>(transform)](const Outcome& outcome) mutable {
                if (outcome.isFailure()) {
                    done(Next::Outcome::failure(outcome.error()));
                    return;
                }
                Inner inner = f(outcome.value());
                if (inner == nullptr) fatalError("Future::flatMap: the transform returned no future");
                inner->observe(std::move(done));
            });
        });
    }

    /// A new future with the value if `predicate` accepts it, `FutureError::noSuchElement()` if
    /// it does not; a failure passes through.
    template <class P>
        requires std::predicate<P&, const Value&>
    std::shared_ptr<Future> filter(P&& predicate) {
        return create([&](Completion done) {
            observe([done = std::move(done), p = std::forward<P>(predicate)](const Outcome& outcome) mutable {
                if (outcome.isSuccess() && !p(outcome.value())) {
                    done(Outcome::failure(FutureError::noSuchElement()));
                } else {
                    done(outcome);
                }
            });
        });
    }

    /// A new future that never fails: the value, or on a failure the value `makeValue` returns
    /// (called only then; the error is dropped).
    template <class F>
        requires std::is_invocable_r_v<Value, F&>
    std::shared_ptr<Future> recover(F&& makeValue) {
        return create([&](Completion done) {
            observe([done = std::move(done), f = std::forward<F>(makeValue)](const Outcome& outcome) mutable {
                if (outcome.isSuccess()) {
                    done(outcome);
                } else {
                    done(Outcome::success(f()));
                }
            });
        });
    }

    /// The future's label, "Future-" followed by a UUID in upper case, made on first request.
    std::string label() const {
        std::lock_guard lock(mutex_);
        if (!label_) label_ = std::make_unique<const std::string>(detail::makeFutureLabel());
        return *label_;
    }

    explicit Future(PrivateTag) {}
    Future(const Future&) = delete;
    Future& operator=(const Future&) = delete;

private:
    template <class>
    friend class Future;
    using Callback = UniqueFunction<void(const Outcome&)>;

    // Pending callbacks in registration order; the first is stored in place because most
    // futures have exactly one observer.
    class CallbackList {
    public:
        void push(Callback callback) {
            if (count_++ == 0) {
                first_ = std::move(callback);
            } else {
                rest_.push_back(std::move(callback));
            }
        }
        // Moves the callbacks to `into` (which must be empty), leaving this list empty.
        void takeInto(CallbackList& into) noexcept {
            into.count_ = std::exchange(count_, 0);
            into.first_ = std::move(first_);
            if (into.count_ > 1) into.rest_.swap(rest_);
        }
        void callAll(const Outcome& outcome) {
            if (count_ == 0) return;
            first_(outcome);
            for (auto& callback : rest_) callback(outcome);
        }

    private:
        std::size_t count_ = 0;
        Callback first_;
        std::vector<Callback> rest_;
    };

    // onResult without returning the future.
    void observe(Callback callback) {
        std::shared_ptr<const Outcome> replacement;
        {
            std::lock_guard lock(mutex_);
            // 1. read the cached outcome
            if (!first_) {
                pending_.push(std::move(callback));  // 3. not yet known: append the callback
                return;
            }
            replacement = replacement_;
        }
        // 2. known: call at once, on this thread. `first_` never changes once set, so it is read
        // outside the lock; a later outcome lives in `replacement_`, shared with this reader.
        callback(replacement ? *replacement : *first_);
    }

    void send(Outcome result) {
        CallbackList callbacks;
        std::shared_ptr<const Outcome> replacement;
        std::shared_ptr<const Outcome> replaced;
        {
            std::lock_guard lock(mutex_);
            // 1. store the outcome, replacing any earlier one
            if (!first_) {
                first_.emplace(std::move(result));
            } else {
                replacement = std::make_shared<const Outcome>(std::move(result));
                replaced = std::exchange(replacement_, replacement);
            }
            pending_.takeInto(callbacks);  // 2. + 3. take the callbacks, leaving none
        }
        callbacks.callAll(replacement ? *replacement : *first_);  // 4. in registration order, on this thread
    }

    // Guards the fields below: the future's serial section. Callbacks always run outside it, so a
    // callback may observe this or any other future.
    mutable std::mutex mutex_;
    CallbackList pending_;
    std::optional<Outcome> first_;                 // the first outcome; never changes once set
    std::shared_ptr<const Outcome> replacement_;  // the latest outcome of a future completed again
    mutable std::unique_ptr<const std::string> label_;
};

}  // namespace zul
