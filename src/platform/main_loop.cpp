#include "zul/platform/main_loop.hpp"

#include <algorithm>
#include <asio/executor_work_guard.hpp>

#include "platform/runtime.hpp"

namespace zul {

namespace {

// Makes sure the main queue exists, so that the loop has something to run.
asio::io_context& prepare() {
    (void)DispatchQueue::main();
    auto& context = detail::mainContext();
    context.restart();
    return context;
}

}  // namespace

void MainLoop::run() {
    auto& context = prepare();
    auto guard = asio::make_work_guard(context);
    context.run();
}

void MainLoop::stop() { detail::mainContext().stop(); }

void MainLoop::runFor(std::chrono::milliseconds duration) {
    auto& context = prepare();
    auto guard = asio::make_work_guard(context);
    context.run_for(duration);
}

bool MainLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto& context = prepare();
    auto guard = asio::make_work_guard(context);
    // `done` may become true through other threads, with no main-queue work to wake the loop, so
    // the loop also wakes at every poll interval to ask again.
    constexpr auto kPollInterval = std::chrono::milliseconds(5);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        const auto now = std::chrono::steady_clock::now();
        if (context.stopped() || now >= deadline) break;
        context.run_one_until(std::min(deadline, now + kPollInterval));
    }
    return done();
}

bool MainLoop::drain() {
    auto& context = prepare();
    detail::clearMainLoopSignal();
    return context.poll() > 0;
}

int MainLoop::fileDescriptor() { return detail::mainLoopFd(); }

}  // namespace zul
