// The throughput of a serial dispatcher, next to an Asio strand over a thread pool of the same
// size: the closest thing a program could build by hand on the same foundation.
//
// One thread submits a million trivial jobs as fast as it can and then waits until the last one
// has run. That is the pattern a serial dispatcher has to sustain when it guards state that many
// producers touch: the cost measured is submission plus hand-off plus running, end to end, so the
// figure is wall-clock time (the process CPU time is reported next to it, which shows how much of
// the machine each side keeps busy for the same work).
//
// Leave ZUL_DISPATCH_THREADS unset when comparing: the Asio pool below is sized like the
// library's default pool.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <cstddef>
#include <cstdint>
#include <future>
#include <thread>

#include "zul/core/dispatch.hpp"

namespace {

constexpr std::size_t kJobs = 1'000'000;

// The library's pool: one thread per core, at least two.
unsigned poolThreads() { return std::max(2u, std::thread::hardware_concurrency()); }

// The state every job touches. `count` is deliberately not atomic: only jobs of one serial
// context touch it, one at a time, and that guarantee is part of what is being measured (a
// broken serial context would lose increments and the check after the run would catch it).
struct Tally {
    std::size_t count = 0;
    std::promise<void> drained;

    // The job: count, and let the submitter go once the last job has run.
    void bump() {
        if (++count == kJobs) drained.set_value();
    }
};

// Submits one job to `submit` and waits for it, so that the thread pool behind it is started
// and the first timed iteration does not pay for creating threads.
template <class Submit>
void warmUp(Submit&& submit) {
    std::promise<void> ran;
    submit([&ran] { ran.set_value(); });
    ran.get_future().wait();
}

void report(benchmark::State& state) {
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(kJobs));
    state.counters["threads"] = poolThreads();
}

// A million jobs through one `ZulDispatchCustom`: its private serial queue runs them on the
// process-wide pool, one at a time, in submission order.
void BM_ZulDispatchCustom_Async1M(benchmark::State& state) {
    const auto dispatcher = zul::ZulDispatchCustom::create("dev.zul.bench.serial");
    warmUp([&](auto job) { dispatcher->async(std::move(job)); });

    for (auto _ : state) {
        Tally tally;
        auto drained = tally.drained.get_future();
        for (std::size_t i = 0; i < kJobs; ++i) {
            dispatcher->async([&tally] { tally.bump(); });
        }
        drained.wait();

        // The last job has run, and the promise orders its writes before this read.
        if (tally.count != kJobs) {
            state.SkipWithError("the serial queue did not run every job exactly once");
            break;
        }
    }
    report(state);
}
BENCHMARK(BM_ZulDispatchCustom_Async1M)
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// The same million jobs posted straight to an Asio strand over a thread pool with as many
// threads as the library's pool.
void BM_AsioStrand_Post1M(benchmark::State& state) {
    asio::thread_pool pool(poolThreads());
    auto strand = asio::make_strand(pool);
    warmUp([&](auto job) { asio::post(strand, std::move(job)); });

    for (auto _ : state) {
        Tally tally;
        auto drained = tally.drained.get_future();
        for (std::size_t i = 0; i < kJobs; ++i) {
            asio::post(strand, [&tally] { tally.bump(); });
        }
        drained.wait();

        if (tally.count != kJobs) {
            state.SkipWithError("the strand did not run every job exactly once");
            break;
        }
    }
    report(state);
    pool.join();
}
BENCHMARK(BM_AsioStrand_Post1M)
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

}  // namespace

BENCHMARK_MAIN();
