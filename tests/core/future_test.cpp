#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "zul/core/future.hpp"

namespace {

using zul::AnyError;
using zul::Future;
using zul::FutureError;

class NetworkDown final : public zul::Error {
public:
    const char* what() const noexcept override { return "network down"; }
};

// A pending future and the completion that settles it.
template <class T>
struct Pending {
    std::shared_ptr<Future<T>> future;
    std::optional<typename Future<T>::Completion> complete;
    Pending() {
        future = Future<T>::create([this](typename Future<T>::Completion done) { complete = std::move(done); });
    }
};

// The outcome of a future as it stands: absent while it is pending. (The callback it registers on a
// pending future owns what it writes to, so a later completion writes nowhere dangerous.)
template <class T>
std::optional<typename Future<T>::Outcome> outcomeOf(const std::shared_ptr<Future<T>>& future) {
    auto out = std::make_shared<std::optional<typename Future<T>::Outcome>>();
    future->onResult([out](const typename Future<T>::Outcome& outcome) { *out = outcome; });
    return *out;
}

TEST(FutureTest, ComputeRunsBeforeCreateReturnsReadyFuturesCallObserversAtOnceAndAbsentInitialValuesFail) {
    bool computed = false;
    auto future = Future<int>::create([&](Future<int>::Completion done) {
        computed = true;
        done(zul::success(3));
    });
    EXPECT_TRUE(computed);

    int seen = 0;
    auto same = future->onSuccess([&](int value) { seen = value; });
    EXPECT_EQ(seen, 3);  // before onSuccess returned
    EXPECT_EQ(same, future);

    // An absent initial value fails with emptyInitValue.
    std::optional<AnyError> error;
    Future<int>::create(std::optional<int>())
        ->onSuccess([](int) { ADD_FAILURE() << "succeeded"; })
        ->onFailure([&](const AnyError& e) { error = e; });
    ASSERT_TRUE(error.has_value());
    ASSERT_TRUE(error->is<FutureError>());
    EXPECT_EQ(*error->as<FutureError>(), FutureError::emptyInitValue());
    EXPECT_EQ(error->description(), "emptyInitValue");
}

TEST(FutureTest, PendingCallbacksRunOnceInRegistrationOrderOnTheCompletingThreadAndALaterCompletionReplacesTheOutcome) {
    Pending<std::string> pending;
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    for (int i = 0; i < 5; ++i) {
        pending.future->onResult([&, i](const Future<std::string>::Outcome& outcome) {
            EXPECT_EQ(outcome.value(), "done");
            order.push_back(i);
            threads.push_back(std::this_thread::get_id());
        });
    }
    EXPECT_TRUE(order.empty());
    std::thread::id completer;
    std::thread([&] {
        completer = std::this_thread::get_id();
        (*pending.complete)(zul::success(std::string("done")));
    }).join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    for (const auto& id : threads) EXPECT_EQ(id, completer);

    // A second completion replaces the outcome, and reaches only callbacks registered after it.
    (*pending.complete)(zul::success(std::string("again")));
    EXPECT_EQ(order.size(), 5u);
    EXPECT_EQ(outcomeOf(pending.future)->value(), "again");
    (*pending.complete)(zul::failure(NetworkDown()));
    EXPECT_TRUE(outcomeOf(pending.future)->isFailure());
}

TEST(FutureTest, MapFlatMapFilterAndRecoverTransformValuesAndPassFailuresThrough) {
    auto mapped = Future<int>::create(20)->map([](int v) { return v + 1; })->map([](int v) { return std::to_string(v); });
    static_assert(std::is_same_v<decltype(mapped), std::shared_ptr<Future<std::string>>>);
    EXPECT_EQ(outcomeOf(mapped)->value(), "21");

    // A failure passes through each step without calling its transform.
    auto passed = Future<int>::create(AnyError(NetworkDown()))
                      ->map([](int v) { ADD_FAILURE() << "map transformed a failure"; return v; })
                      ->flatMap([](int v) { ADD_FAILURE() << "flatMap transformed a failure"; return Future<int>::create(v); })
                      ->filter([](int) { ADD_FAILURE() << "filter judged a failure"; return true; });
    EXPECT_TRUE(outcomeOf(passed)->error().is<NetworkDown>());

    auto failingInner = Future<int>::create(4)->flatMap([](int) { return Future<double>::create(AnyError(NetworkDown())); });
    static_assert(std::is_same_v<decltype(failingInner), std::shared_ptr<Future<double>>>);
    EXPECT_TRUE(outcomeOf(failingInner)->error().is<NetworkDown>());

    // An inner future completed later, from another thread.
    Pending<int> inner;
    auto chained = Future<int>::create(1)->flatMap([&](int) { return inner.future; })->map([](int v) { return v * 10; });
    EXPECT_FALSE(outcomeOf(chained).has_value());
    std::thread([&] { (*inner.complete)(zul::success(7)); }).join();
    EXPECT_EQ(outcomeOf(chained)->value(), 70);

    // A rejected value fails with noSuchElement, which recover turns back into a value.
    auto rejected = Future<int>::create(3)->filter([](int v) { return v > 5; });
    const auto error = outcomeOf(rejected)->error();
    ASSERT_TRUE(error.is<FutureError>());
    EXPECT_EQ(*error.as<FutureError>(), FutureError::noSuchElement());
    EXPECT_EQ(outcomeOf(rejected->recover([] { return 0; }))->value(), 0);
    EXPECT_EQ(outcomeOf(Future<int>::create(9)->filter([](int v) { return v > 5; }))->value(), 9);
    auto kept = Future<int>::create(4)->recover([] {
        ADD_FAILURE() << "recovered a value";
        return 0;
    });
    EXPECT_EQ(outcomeOf(kept)->value(), 4);
}

TEST(FutureTest, AChainNobodyHoldsCompletesAndIsThenReleased) {
    Pending<int> source;
    std::atomic<int> delivered{0};
    std::weak_ptr<Future<int>> middle;
    {
        auto mapped = source.future->map([](int v) { return v + 1; });
        middle = mapped;
        mapped->filter([](int v) { return v > 0; })->map([](int v) { return v * 2; })->onSuccess([&](int v) {
            delivered = v;
        });
    }
    source.future.reset();          // only the completion holds the chain now
    EXPECT_FALSE(middle.expired());  // kept alive by the callback registered on the source
    std::thread([&] { (*source.complete)(zul::success(20)); }).join();
    EXPECT_EQ(delivered.load(), 42);
    source.complete.reset();
    EXPECT_TRUE(middle.expired());
}

TEST(FutureTest, VoidFuturesSignalAndMapWithoutAValue) {
    std::optional<Future<zul::Void>::Completion> complete;
    auto signal = Future<zul::Void>::signal([&](Future<zul::Void>::Completion done) { complete = done; });
    int ran = 0;
    auto same = signal->map([&] { ++ran; });
    EXPECT_EQ(same, signal);  // registered as onSuccess, not a new future
    auto counted = signal->map([](zul::Void) { return 1; });
    (*complete)(zul::success());
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(outcomeOf(counted)->value(), 1);

    auto nothing = Future<int>::create(1)->map([](int) {});
    static_assert(std::is_same_v<decltype(nothing), std::shared_ptr<Future<zul::Void>>>);
    EXPECT_TRUE(outcomeOf(nothing)->isSuccess());
}

TEST(FutureTest, LabelsAreFutureFollowedByAnUpperCaseUUID) {
    auto first = Future<int>::create(1);
    auto second = Future<int>::create(1);
    const std::regex pattern("^Future-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$");
    EXPECT_TRUE(std::regex_match(first->label(), pattern)) << first->label();
    EXPECT_EQ(first->label(), first->label());
    EXPECT_NE(first->label(), second->label());
}

TEST(FutureTest, ObserversRacingTheCompletionEachRunExactlyOnce) {
    constexpr int kObservers = 4;
    constexpr int kRounds = 300;
    for (int round = 0; round < kRounds; ++round) {
        Pending<int> pending;
        std::atomic<int> calls{0};
        std::latch start(kObservers + 1);
        std::vector<std::thread> threads;
        for (int t = 0; t < kObservers; ++t) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                for (int i = 0; i < 5; ++i) pending.future->onSuccess([&](int v) { calls.fetch_add(v); });
            });
        }
        threads.emplace_back([&] {
            start.arrive_and_wait();
            (*pending.complete)(zul::success(1));
        });
        for (auto& thread : threads) thread.join();
        ASSERT_EQ(calls.load(), kObservers * 5) << "round " << round;
    }
}

}  // namespace
