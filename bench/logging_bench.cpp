// Logging throughput, end to end, next to spdlog's asynchronous logger.
//
// One or four producer threads send 400 000 messages between them at a level a logger that
// discards them is registered for; the time runs from the start of the producers until that
// logger has received the last message, so the figure (items per second = messages per second)
// covers the caller's cost, the hand-offs between threads and the delivery; the process CPU time
// is reported next to it. spdlog does the same
// through an `spdlog::async_logger` on its default thread pool (one worker thread, 8192 slots,
// blocking when full) into a sink that discards like its null sink but counts, so that the end
// is known.
//
// Two kinds of message: a formatted one with a number in it (the common case; spdlog formats it
// on the caller's thread, the hub makes the deferred text on its own queue) and a ready text. And
// the cost of a message nobody listens to, on the caller's thread.
//
// Note that the hub never blocks a caller, so in this flood it queues what the callers send
// faster than it processes; spdlog blocks its callers when its slots are full.
//
//     build-bench/bench/zul_logging_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "zul/core/logging.hpp"

namespace {

constexpr std::size_t kMessages = 400'000;

// Counts what it is given and lets the waiting thread go when the expected number has arrived.
class Tally {
public:
    void expect(std::size_t n) {
        received_.store(0, std::memory_order_relaxed);
        expected_ = n;
        done_.store(false, std::memory_order_release);
    }
    void receive() {
        if (received_.fetch_add(1, std::memory_order_relaxed) + 1 == expected_) {
            done_.store(true, std::memory_order_release);
            done_.notify_one();
        }
    }
    void wait() const { done_.wait(false, std::memory_order_acquire); }
    std::size_t received() const { return received_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::size_t> received_{0};
    std::size_t expected_ = 0;
    std::atomic<bool> done_{false};
};

class DiscardingLogger final : public zul::ZulLogger {
public:
    explicit DiscardingLogger(Tally& tally) : tally_(tally) {}
    std::string identifier() const override { return "dev.zul.bench.discard"; }
    void log(const zul::ZulLoggerMessage& message) override {
        benchmark::DoNotOptimize(message.text().data());
        tally_.receive();
    }

private:
    Tally& tally_;
};

class DiscardingSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    explicit DiscardingSink(Tally& tally) : tally_(tally) {}

protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        benchmark::DoNotOptimize(message.payload.data());
        tally_.receive();
    }
    void flush_() override {}

private:
    Tally& tally_;
};

// Runs `send(i)` for the messages 0 ..< kMessages, spread over `threads` threads that start
// together, and waits for `tally` to have received them all.
template <class Send>
void produce(int threads, Tally& tally, Send send) {
    tally.expect(kMessages);
    const std::size_t share = kMessages / static_cast<std::size_t>(threads);
    std::latch start(threads);
    std::vector<std::thread> producers;
    for (int t = 0; t < threads; ++t) {
        const std::size_t begin = share * static_cast<std::size_t>(t);
        const std::size_t end = t + 1 == threads ? kMessages : begin + share;
        producers.emplace_back([&start, &send, begin, end] {
            start.arrive_and_wait();
            for (std::size_t i = begin; i < end; ++i) send(i);
        });
    }
    for (auto& producer : producers) producer.join();
    tally.wait();
}

void report(benchmark::State& state, const Tally& tally) {
    if (tally.received() != kMessages) state.SkipWithError("a message was lost or duplicated");
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(kMessages));
}

template <class Send>
void runZul(benchmark::State& state, Send send) {
    Tally tally;
    auto logger = std::make_shared<DiscardingLogger>(tally);
    const auto& hub = zul::ZulLogging::shared();
    hub->add(logger, zul::ZulLog::info);
    tally.expect(1);
    zul::ZulLog::info.send("warm-up");  // starts the pool before the clock runs
    tally.wait();
    for (auto _ : state) produce(static_cast<int>(state.range(0)), tally, send);
    report(state, tally);
    hub->remove(*logger);
}

template <class Send>
void runSpdlog(benchmark::State& state, Send send) {
    Tally tally;
    auto logger = spdlog::create_async<DiscardingSink>("dev.zul.bench.spdlog", tally);
    tally.expect(1);
    logger->info("warm-up");
    tally.wait();
    for (auto _ : state) produce(static_cast<int>(state.range(0)), tally, [&](std::size_t i) { send(*logger, i); });
    report(state, tally);
    spdlog::drop_all();
}

// A formatted message: "segment <i> downloaded in 42 ms".

void BM_ZulLogging_Formatted(benchmark::State& state) {
    runZul(state, [](std::size_t i) {
        zul::ZulLog::info.send([i] { return "segment " + std::to_string(i) + " downloaded in 42 ms"; });
    });
}

void BM_SpdlogAsync_Formatted(benchmark::State& state) {
    runSpdlog(state, [](spdlog::logger& logger, std::size_t i) { logger.info("segment {} downloaded in {} ms", i, 42); });
}

// A ready text.

void BM_ZulLogging_Text(benchmark::State& state) {
    runZul(state, [](std::size_t) { zul::ZulLog::info.send("playback started from the beginning"); });
}

void BM_SpdlogAsync_Text(benchmark::State& state) {
    runSpdlog(state, [](spdlog::logger& logger, std::size_t) { logger.info("playback started from the beginning"); });
}

// A message nobody listens to: debug, with no logger registered for it (spdlog: below the
// logger's level). The cost of leaving debug logging in the code.

void BM_ZulLogging_Unheard(benchmark::State& state) {
    std::size_t i = 0;
    for (auto _ : state) {
        zul::ZulLog::debug.send([i] { return "segment " + std::to_string(i) + " downloaded in 42 ms"; });
        ++i;
    }
}
BENCHMARK(BM_ZulLogging_Unheard);

void BM_SpdlogAsync_BelowLevel(benchmark::State& state) {
    Tally tally;
    auto logger = spdlog::create_async<DiscardingSink>("dev.zul.bench.spdlog", tally);
    logger->set_level(spdlog::level::info);
    std::size_t i = 0;
    for (auto _ : state) {
        logger->debug("segment {} downloaded in {} ms", i, 42);
        ++i;
    }
    if (tally.received() != 0) state.SkipWithError("a debug message got through");
    spdlog::drop_all();
}
BENCHMARK(BM_SpdlogAsync_BelowLevel);

#define ZUL_LOGGING_BENCHMARK(name) \
    BENCHMARK(name)->ArgName("threads")->Arg(1)->Arg(4)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime() \
        ->MeasureProcessCPUTime()

ZUL_LOGGING_BENCHMARK(BM_ZulLogging_Formatted);
ZUL_LOGGING_BENCHMARK(BM_SpdlogAsync_Formatted);
ZUL_LOGGING_BENCHMARK(BM_ZulLogging_Text);
ZUL_LOGGING_BENCHMARK(BM_SpdlogAsync_Text);

}  // namespace

BENCHMARK_MAIN();
