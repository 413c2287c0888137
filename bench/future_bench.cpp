// The per-operation cost of a future, next to the standard library's promise/future pair.
//
// Everything runs on one thread: completing a future calls its callbacks on the completing
// thread, so a single-threaded round trip measures exactly what the library adds (allocation,
// locking, storing and calling the callbacks) without any scheduling noise. The standard pair is
// the baseline a caller would otherwise reach for; it blocks in `get()`, so its single-threaded
// use is "set, then get".
//
// Every benchmark checks the value it ends up with and reports an error instead of a figure when
// it is wrong, so that a broken build cannot produce a flattering number.

#include <benchmark/benchmark.h>

#include <future>
#include <memory>
#include <optional>

#include "zul/core/future.hpp"

namespace {

using IntFuture = zul::Future<int>;

// How many `map` steps (or promise hops) the chain benchmarks make.
constexpr int kChainLength = 10;

// --- One value, one observer ------------------------------------------------------------------

// The usual life of a future: made pending by a compute callback that keeps its completion,
// observed once, then completed, which delivers the value to the observer.
void BM_ZulFuture_RoundTrip(benchmark::State& state) {
    int next = 0;
    for (auto _ : state) {
        const int sent = ++next;
        int received = 0;

        std::optional<IntFuture::Completion> complete;
        auto future = IntFuture::create([&](IntFuture::Completion done) { complete.emplace(std::move(done)); });
        future->onResult([&received](const IntFuture::Outcome& outcome) {
            if (outcome.isSuccess()) received = outcome.value();
        });
        (*complete)(zul::success(sent));

        benchmark::DoNotOptimize(received);
        if (received != sent) {
            state.SkipWithError("the observer did not receive the value the future was completed with");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZulFuture_RoundTrip);

// A future made already complete, then observed: the callback runs at once, on the spot.
void BM_ZulFuture_RoundTripCompleted(benchmark::State& state) {
    int next = 0;
    for (auto _ : state) {
        const int sent = ++next;
        int received = 0;

        auto future = IntFuture::create(std::optional<int>(sent));
        future->onSuccess([&received](const int& value) { received = value; });

        benchmark::DoNotOptimize(received);
        if (received != sent) {
            state.SkipWithError("the observer did not receive the value the future was made with");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZulFuture_RoundTripCompleted);

// The same round trip through the standard pair: make the shared state, set it, read it.
void BM_StdPromise_RoundTrip(benchmark::State& state) {
    int next = 0;
    for (auto _ : state) {
        const int sent = ++next;

        std::promise<int> promise;
        std::future<int> future = promise.get_future();
        promise.set_value(sent);
        int received = future.get();

        benchmark::DoNotOptimize(received);
        if (received != sent) {
            state.SkipWithError("std::future::get did not return the value set");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdPromise_RoundTrip);

// --- A chain of ten transforms ----------------------------------------------------------------

// A pending source, ten `map`s each adding one, an observer on the last, then the source is
// completed: the value flows through the whole chain on this thread. Eleven futures per
// iteration (the source and one per `map`).
void BM_ZulFuture_Map10(benchmark::State& state) {
    int next = 0;
    for (auto _ : state) {
        const int seed = ++next;
        int received = 0;

        std::optional<IntFuture::Completion> complete;
        std::shared_ptr<IntFuture> tail =
            IntFuture::create([&](IntFuture::Completion done) { complete.emplace(std::move(done)); });
        for (int step = 0; step < kChainLength; ++step) {
            tail = tail->map([](int value) { return value + 1; });
        }
        tail->onSuccess([&received](const int& value) { received = value; });
        (*complete)(zul::success(seed));

        benchmark::DoNotOptimize(received);
        if (received != seed + kChainLength) {
            state.SkipWithError("the end of the map chain did not receive seed + 10");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZulFuture_Map10);

// The standard equivalent: a source pair, then ten hops, each reading the previous future and
// setting a fresh promise with that value plus one. Eleven shared states per iteration, as above.
void BM_StdPromise_Map10(benchmark::State& state) {
    int next = 0;
    for (auto _ : state) {
        const int seed = ++next;

        std::promise<int> source;
        std::future<int> current = source.get_future();
        source.set_value(seed);
        for (int step = 0; step < kChainLength; ++step) {
            std::promise<int> hop;
            std::future<int> following = hop.get_future();
            hop.set_value(current.get() + 1);
            current = std::move(following);
        }
        int received = current.get();

        benchmark::DoNotOptimize(received);
        if (received != seed + kChainLength) {
            state.SkipWithError("the last std::future of the chain did not hold seed + 10");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdPromise_Map10);

}  // namespace

BENCHMARK_MAIN();
