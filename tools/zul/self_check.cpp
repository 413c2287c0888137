#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "commands.hpp"
#include "zul/core/dispatch.hpp"
#include "zul/core/future.hpp"
#include "zul/platform/dispatch_source.hpp"
#include "zul/platform/main_loop.hpp"
#include "zul/version.hpp"

namespace zul::tool {

namespace {

int failures = 0;

void report(bool passed, const std::string& what) {
    std::printf("  %s %s\n", passed ? "ok  " : "FAIL", what.c_str());
    if (!passed) ++failures;
}

void checkSerialQueue() {
    auto dispatcher = ZulDispatchCustom::create("dev.zul.self-check.serial");
    constexpr int kJobs = 10000;
    std::vector<int> order;
    for (int i = 0; i < kJobs; ++i) dispatcher->async([&order, i] { order.push_back(i); });
    const bool inOrder = dispatcher->queue()->sync([&] {
        if (order.size() != kJobs) return false;
        for (int i = 0; i < kJobs; ++i) {
            if (order[static_cast<std::size_t>(i)] != i) return false;
        }
        return true;
    });
    report(inOrder, "serial queue \"" + dispatcher->queue()->label() + "\": " + std::to_string(kJobs) +
                        " jobs ran one at a time, in submission order");
}

void checkMainQueueFutureAndTimer() {
    const auto mainThread = std::this_thread::get_id();
    auto worker = DispatchQueue::create("dev.zul.self-check.worker");

    // A future completed on a worker queue, transformed along a chain, observed on the main queue.
    auto source = Future<int>::create([&](Future<int>::Completion done) {
        worker->asyncAfter(dispatchTimeAfter(0.01), [done] { done(success(20)); });
    });
    std::string chainResult = "(none)";
    bool observedOnMain = false;
    source->map([](int v) { return v + 1; })
        ->filter([](int v) { return v > 0; })
        ->flatMap([&](int v) {
            return Future<int>::create([&, v](Future<int>::Completion done) { worker->async([done, v] { done(success(v * 2)); }); });
        })
        ->onResult([&](const Future<int>::Outcome& outcome) {
            DispatchQueue::main()->async([&, outcome] {
                observedOnMain = std::this_thread::get_id() == mainThread;
                chainResult = outcome.isSuccess() ? std::to_string(outcome.value()) : outcome.error().description();
            });
        });

    // A repeating timer that fires three times on the main queue, then cancels itself.
    auto timer = DispatchSourceTimer::create(DispatchQueue::main());
    int firings = 0;
    timer->setEventHandler([&] {
        if (++firings == 3) timer->cancel();
    });
    timer->schedule(DispatchClock::now(), std::chrono::milliseconds(5));
    timer->resume();

    const bool finished =
        MainLoop::runUntil([&] { return chainResult != "(none)" && firings >= 3; }, std::chrono::seconds(10));
    report(finished && chainResult == "42" && observedOnMain,
           "future chain 20 -> map(+1) -> filter(>0) -> flatMap(x2 on a worker queue) gave " + chainResult +
               ", delivered on the main thread");
    report(firings == 3, "timer on the main queue fired " + std::to_string(firings) + " times, then cancelled itself");
}

}  // namespace

int selfCheck() {
    std::printf("zul %s self-check\n", versionString);
    checkSerialQueue();
    checkMainQueueFutureAndTimer();
    std::printf(failures == 0 ? "all checks passed\n" : "%d check(s) failed\n", failures);
    return failures == 0 ? 0 : 1;
}

}  // namespace zul::tool
